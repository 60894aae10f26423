// Percentiles from counted ranges; see latencies.h.
#include "base/latencies.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

namespace kavri::base {

namespace {

constexpr unsigned stepBits = 7;
constexpr std::uint64_t steps = 1U << stepBits;

// Durations below 128 ns have a range each; from there on, a power of two has 128.
std::size_t rangeOf(std::uint64_t value) {
    if (value < steps) {
        return value;
    }
    const auto shift = static_cast<unsigned>(std::bit_width(value)) - stepBits - 1;
    return (shift + 1) * steps + ((value >> shift) - steps);
}

std::uint64_t upperEndOf(std::size_t range) {
    if (range < steps) {
        return range;
    }
    const std::size_t shift = range / steps - 1;
    return ((steps + range % steps + 1) << shift) - 1;
}

}  // namespace

void Latencies::add(Duration latency) {
    const auto value = static_cast<std::uint64_t>(std::max<Duration::rep>(latency.count(), 0));
    const std::size_t range = rangeOf(value);
    if (range >= ranges_.size()) {
        ranges_.resize(range + 1);
    }
    ++ranges_[range];
    least_ = count_ == 0 ? latency : std::min(least_, latency);
    most_ = std::max(most_, latency);
    ++count_;
}

Latencies::Duration Latencies::percentile(double share) const {
    const auto wanted = static_cast<std::size_t>(std::ceil(share * static_cast<double>(count_)));
    std::size_t seen = 0;
    for (std::size_t range = 0; range < ranges_.size(); ++range) {
        seen += ranges_[range];
        if (seen > 0 && seen >= wanted) {
            return std::min(most_, Duration(static_cast<Duration::rep>(upperEndOf(range))));
        }
    }
    return most_;
}

}  // namespace kavri::base
