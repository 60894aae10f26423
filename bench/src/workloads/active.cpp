// Many initiators active at once: each on a thread of its own, with one request
// after the other. The threads stand for as many programs.
//
// Fair is who serves all alike: told by how many times more round trips the
// median initiator made than the slowest one.
#include <algorithm>
#include <barrier>
#include <thread>

#include "figures.h"
#include "session.h"
#include "workloads/round_trips.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

constexpr double warmUpShare = 0.2;

struct Initiator {
    std::unique_ptr<CheckedClient> client;
    Latencies latencies;
    std::exception_ptr failure;
};

void run(Initiator& initiator, std::barrier<>& start, double seconds) {
    start.arrive_and_wait();
    try {
        roundTripsFor(*initiator.client, seconds * warmUpShare);
        initiator.latencies = roundTripsFor(*initiator.client, seconds);
    } catch (...) {
        initiator.failure = std::current_exception();
    }
}

nlohmann::json figuresOf(std::vector<Initiator>& initiators, double seconds) {
    Latencies all;
    std::vector<std::size_t> counts;
    for (const Initiator& initiator : initiators) {
        if (initiator.failure) {
            std::rethrow_exception(initiator.failure);
        }
        all.add(initiator.latencies);
        counts.push_back(initiator.latencies.count());
    }
    std::ranges::sort(counts);
    nlohmann::json figures = all.figures();
    figures["messagesPerSecond"] = static_cast<double>(all.count()) / seconds;
    figures["medianOverSlowest"] = static_cast<double>(counts[counts.size() / 2]) /
                                   static_cast<double>(std::max<std::size_t>(counts.front(), 1));
    return figures;
}

}  // namespace

nlohmann::json measureActive(const Options& options) {
    Session session(options, false);
    std::vector<Initiator> initiators(options.clients);
    for (Initiator& initiator : initiators) {
        initiator.client = session.connect(options.payloadBytes);
        initiator.client->roundTrip();
    }
    std::barrier start(static_cast<std::ptrdiff_t>(initiators.size()));
    std::vector<std::thread> threads;
    threads.reserve(initiators.size());
    for (Initiator& initiator : initiators) {
        threads.emplace_back([&] { run(initiator, start, options.seconds); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return figuresOf(initiators, options.seconds);
}

}  // namespace kavri::bench
