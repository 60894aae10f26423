// How measured latencies are shown: in microseconds, with the same percentiles everywhere.
#ifndef KAVRI_TERMINAL_LATENCY_REPORT_H
#define KAVRI_TERMINAL_LATENCY_REPORT_H

#include <nlohmann/json.hpp>
#include <string>

#include "base/latencies.h"

namespace kavri::terminal {

// "p50 10.9  p90 11.1  p99 13.6  p99.9 77.3  max 682.0 us"
std::string latencyText(const base::Latencies& latencies);
// With "min" and "max" beside the percentiles.
nlohmann::ordered_json latencyJson(const base::Latencies& latencies);

double microseconds(base::Latencies::Duration duration);

}  // namespace kavri::terminal

#endif
