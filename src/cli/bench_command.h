// `kavri bench`: how fast the broker at hand is, by round trips of requests
// through it.
#ifndef KAVRI_CLI_BENCH_COMMAND_H
#define KAVRI_CLI_BENCH_COMMAND_H

#include <CLI/CLI.hpp>
#include <string>

#include "process/exit_status.h"

namespace kavri::cli {

struct BenchOptions {
    std::string socket;  // empty: found as every program finds it
    std::string category = "test";
    std::string command = "echo";
    unsigned payloadBytes = 32;
    unsigned inFlight = 64;
    double seconds = 3;  // of each of the two measurements
    bool json = false;
};

void describeBench(CLI::App& command, BenchOptions& options);

// Throws CommandFailure where nothing can be measured.
process::ExitStatus runBench(const BenchOptions& options);

}  // namespace kavri::cli

#endif
