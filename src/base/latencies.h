// Durations of many round trips, and their percentiles.
#ifndef KAVRI_BASE_LATENCIES_H
#define KAVRI_BASE_LATENCIES_H

#include <chrono>
#include <cstddef>
#include <vector>

namespace kavri::base {

class Latencies {
  public:
    using Duration = std::chrono::nanoseconds;

    void add(Duration latency);
    std::size_t count() const { return count_; }

    // The least duration that `share` (above 0, at most 1) of all do not exceed,
    // to within 1 %. Zero where there are none.
    Duration percentile(double share) const;
    Duration least() const { return count_ == 0 ? Duration(0) : least_; }
    Duration most() const { return most_; }

  private:
    // How many fell into each of the ranges that rise by 1/128 of a power of two:
    // so a measurement of any length takes the same memory.
    std::vector<std::size_t> ranges_;
    std::size_t count_ = 0;
    Duration least_{0};
    Duration most_{0};
};

}  // namespace kavri::base

#endif
