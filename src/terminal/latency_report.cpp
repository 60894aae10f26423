// The percentiles, once; see latency_report.h.
#include "terminal/latency_report.h"

#include <fmt/format.h>

#include <array>

namespace kavri::terminal {

namespace {

// What each percentile is called in text and in JSON.
struct Percentile {
    const char* name;
    double share;
};
constexpr std::array percentiles = {Percentile{"p50", 0.5}, Percentile{"p90", 0.9},
                                    Percentile{"p99", 0.99}, Percentile{"p99.9", 0.999}};

}  // namespace

std::string latencyText(const base::Latencies& latencies) {
    std::string text;
    for (const Percentile& percentile : percentiles) {
        text += fmt::format("{} {:.1f}  ", percentile.name,
                            microseconds(latencies.percentile(percentile.share)));
    }
    return text + fmt::format("max {:.1f} us", microseconds(latencies.most()));
}

nlohmann::ordered_json latencyJson(const base::Latencies& latencies) {
    nlohmann::ordered_json json;
    json["min"] = microseconds(latencies.least());
    for (const Percentile& percentile : percentiles) {
        json[percentile.name] = microseconds(latencies.percentile(percentile.share));
    }
    json["max"] = microseconds(latencies.most());
    return json;
}

double microseconds(base::Latencies::Duration duration) {
    return static_cast<double>(duration.count()) / 1000.0;
}

}  // namespace kavri::terminal
