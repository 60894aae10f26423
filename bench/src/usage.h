// What processes use: processor time, wake-ups and memory.
#ifndef KAVRI_BENCH_USAGE_H
#define KAVRI_BENCH_USAGE_H

#include <sys/types.h>

#include <cstdint>

namespace kavri::bench {

// All threads together, since the process began.
struct Usage {
    std::uint64_t processorNs = 0;
    std::uint64_t wakeUps = 0;
    std::uint64_t proportionalBytes = 0;
    std::uint64_t residentBytes = 0;
};
Usage usageOf(pid_t process);
// Of this process, at next to no cost; memory is left out.
Usage ownUsage();

}  // namespace kavri::bench

#endif
