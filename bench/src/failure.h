// The end of a measurement that fails on a thread without a caller to throw to: a
// callback of a C library, or a thread's entry function.
#ifndef KAVRI_BENCH_FAILURE_H
#define KAVRI_BENCH_FAILURE_H

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace kavri::bench {

// Ends this process with the reason, as main() does.
[[noreturn]] inline void failMeasurement(const std::exception& failure) {
    std::fprintf(stderr, "kavri-bench-measure: %s\n", failure.what());
    std::_Exit(1);
}

template <typename Action>
void failMeasurementOnException(const Action& action) noexcept {
    try {
        action();
    } catch (const std::exception& failure) {
        failMeasurement(failure);
    }
}

}  // namespace kavri::bench

#endif
