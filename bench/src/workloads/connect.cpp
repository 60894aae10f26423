// Connections: connect, one round trip, close, again and again.
#include "figures.h"
#include "session.h"
#include "workloads/workloads.h"

namespace kavri::bench {

nlohmann::json measureConnect(const Options& options) {
    constexpr int warmUp = 10;
    Session session(options, false);
    Latencies latencies;
    Clock::time_point end = after(options.seconds);
    for (int i = 0; i < warmUp || Clock::now() < end; ++i) {
        const Clock::time_point begin = Clock::now();
        session.connect(options.payloadBytes)->roundTrip();  // and is gone
        if (i >= warmUp) {
            latencies.add(begin, Clock::now());
        }
    }
    return latencies.figures();
}

}  // namespace kavri::bench
