// Round trips: one client, one request after the other.
#include "figures.h"
#include "session.h"
#include "workloads/round_trips.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

constexpr double warmUpShare = 0.2;

}  // namespace

Latencies roundTripsFor(CheckedClient& client, double seconds) {
    Latencies latencies;
    const Clock::time_point end = after(seconds);
    Clock::time_point begin = Clock::now();
    while (begin < end) {
        client.roundTrip();
        const Clock::time_point now = Clock::now();
        latencies.add(begin, now);
        begin = now;
    }
    return latencies;
}

nlohmann::json measureRoundTrip(const Options& options) {
    Session session(options, false);
    const auto idle = session.connectIdle(options.idleClients);
    const std::unique_ptr<CheckedClient> client = session.connect(options.payloadBytes);
    client->roundTrip();
    std::vector<Child> busy;
    for (unsigned i = 0; i < options.busyProcesses; ++i) {
        busy.push_back(session.startHelper({"run-busy"}, false));
    }
    roundTripsFor(*client, options.seconds * warmUpShare);
    return roundTripsFor(*client, options.seconds).figures();
}

}  // namespace kavri::bench
