// The workloads. Each runs on servers and services of its own and returns its
// figures by name.
#ifndef KAVRI_BENCH_WORKLOADS_H
#define KAVRI_BENCH_WORKLOADS_H

#include <nlohmann/json.hpp>
#include <string>

#include "options.h"
#include "transports/transport.h"

namespace kavri::bench {

// One request after the other: the time until each response.
nlohmann::json measureRoundTrip(const Options& options);
// A window of requests always under way: messages and bytes per second.
nlohmann::json measureInFlight(const Options& options);
// One request after the other: the time until each response's callback.
nlohmann::json measureRoundTripByCallback(const Options& options);
// A window of requests always under way, responses by callback.
nlohmann::json measureInFlightByCallback(const Options& options);
// Many subscribers to one publisher: deliveries per second.
nlohmann::json measureEvents(const Options& options);
// Many initiators, each with one request after the other.
nlohmann::json measureActive(const Options& options);
// Connect, one round trip, close.
nlohmann::json measureConnect(const Options& options);
// What connected clients cost while nothing happens.
nlohmann::json measureIdle(const Options& options);
// Round trips alone, and while another initiator floods.
nlohmann::json measureFlood(const Options& options);

// The flooding process: until it is ended, then says how many came back.
[[noreturn]] void runFlood(const Transport& transport, const Place& place,
                           const std::string& service);

}  // namespace kavri::bench

#endif
