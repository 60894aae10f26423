// What one measurement is asked for.
#ifndef KAVRI_BENCH_OPTIONS_H
#define KAVRI_BENCH_OPTIONS_H

#include <cstddef>
#include <string>

namespace kavri::bench {

struct Options {
    std::string transport;
    std::string workload;
    std::size_t payloadBytes = 32;
    std::size_t window = 64;          // requests under way at once
    std::size_t clients = 1;          // initiators or subscribers
    std::size_t idleClients = 0;      // connected beside those
    unsigned busyProcesses = 0;       // that use a processor each, as far as they get one
    bool onOneProcessor = false;      // everything, servers and services too
    bool floodsOther = false;         // the flood goes to another service
    bool refillsByOwnThread = false;  // not from within the callback
    double seconds = 1;               // of measuring
};

// The whole command line: fills `options`, or runs another program of this file
// and does not return. Says what is wrong and ends the process otherwise.
Options readOptions(int argc, char** argv);

}  // namespace kavri::bench

#endif
