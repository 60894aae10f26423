// Latencies to percentiles, and the time that a measurement takes.
#ifndef KAVRI_BENCH_FIGURES_H
#define KAVRI_BENCH_FIGURES_H

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

namespace kavri::bench {

using Clock = std::chrono::steady_clock;

inline double secondsBetween(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double>(end - begin).count();
}
inline Clock::time_point after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

class Latencies {
  public:
    void add(Clock::time_point begin, Clock::time_point end);
    void add(const Latencies& others);
    std::size_t count() const { return ns_.size(); }

    // Microseconds by percentile, and the distribution for drawing.
    nlohmann::json figures();
    double percentileUs(double percent);

  private:
    std::vector<std::uint32_t> ns_;
    bool isSorted_ = true;
};

}  // namespace kavri::bench

#endif
