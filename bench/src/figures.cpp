// Latencies to percentiles; see figures.h.
#include "figures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

namespace kavri::bench {

void Latencies::add(Clock::time_point begin, Clock::time_point end) {
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(end - begin).count();
    ns_.push_back(static_cast<std::uint32_t>(
        std::min<std::int64_t>(ns, std::numeric_limits<std::uint32_t>::max())));
    isSorted_ = false;
}

void Latencies::add(const Latencies& others) {
    ns_.insert(ns_.end(), others.ns_.begin(), others.ns_.end());
    isSorted_ = false;
}

double Latencies::percentileUs(double percent) {
    if (ns_.empty()) {
        return 0;
    }
    if (!isSorted_) {
        std::ranges::sort(ns_);
        isSorted_ = true;
    }
    const double rank = std::ceil(percent / 100 * static_cast<double>(ns_.size()));
    const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
    return ns_[std::min(index, ns_.size() - 1)] / 1000.0;
}

nlohmann::json Latencies::figures() {
    constexpr std::array drawn{0.0,  1.0,  5.0,  10.0, 20.0, 30.0, 40.0, 50.0, 60.0,  70.0,
                               80.0, 90.0, 95.0, 98.0, 99.0, 99.5, 99.8, 99.9, 99.95, 99.99};
    nlohmann::json distribution = nlohmann::json::array();
    for (const double percent : drawn) {
        distribution.push_back({percent, percentileUs(percent)});
    }
    const double sumNs = std::accumulate(ns_.begin(), ns_.end(), 0.0);
    const auto count = static_cast<double>(std::max<std::size_t>(ns_.size(), 1));
    return {{"meanUs", sumNs / count / 1000}, {"p50Us", percentileUs(50)},
            {"p90Us", percentileUs(90)},      {"p99Us", percentileUs(99)},
            {"p999Us", percentileUs(99.9)},   {"maxUs", percentileUs(100)},
            {"roundTrips", ns_.size()},       {"distribution", distribution}};
}

}  // namespace kavri::bench
