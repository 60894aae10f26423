// What clients cost that do nothing: memory of the server, alone and for each, and
// processor time of all, per second.
#include <algorithm>
#include <chrono>
#include <thread>

#include "figures.h"
#include "session.h"
#include "usage.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

constexpr std::size_t warmUpClients = 16;
constexpr std::chrono::milliseconds settlingTime{500};
// What a server has put off after the last message is done by then.
constexpr std::chrono::seconds restingTime{7};
constexpr double leastSeconds = 1;  // anything that happens now and then is to be seen

Usage usageOfAll(const std::vector<Child>& children) {
    Usage sum;
    for (const Child& child : children) {
        const Usage usage = usageOf(child.id());
        sum.processorNs += usage.processorNs;
        sum.wakeUps += usage.wakeUps;
        sum.proportionalBytes += usage.proportionalBytes;
        sum.residentBytes += usage.residentBytes;
    }
    return sum;
}

// Per second between two looks.
nlohmann::json rate(const Usage& before, const Usage& now, double seconds) {
    return {{"processorUsPerSecond",
             static_cast<double>(now.processorNs - before.processorNs) / 1000.0 / seconds},
            {"wakeUpsPerSecond", static_cast<double>(now.wakeUps - before.wakeUps) / seconds}};
}

double perClient(std::uint64_t before, std::uint64_t now, std::size_t clients) {
    return (static_cast<double>(now) - static_cast<double>(before)) / static_cast<double>(clients);
}

// Everybody sleeps, after a rest. This process holds the clients and is woken once by its own
// clock, which is left out.
nlohmann::json processorTime(const Session& session, double seconds) {
    std::this_thread::sleep_for(restingTime);
    const Usage servers = usageOf(session.server().id());
    const Usage services = usageOfAll(session.services());
    const Usage clients = ownUsage();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    Usage clientsNow = ownUsage();
    --clientsNow.wakeUps;
    return {{"server", rate(servers, usageOf(session.server().id()), seconds)},
            {"service", rate(services, usageOfAll(session.services()), seconds)},
            {"clients", rate(clients, clientsNow, seconds)}};
}

}  // namespace

nlohmann::json measureIdle(const Options& options) {
    Session session(options, false);
    auto first = session.connectIdle(warmUpClients);
    std::this_thread::sleep_for(settlingTime);
    const Usage before = usageOf(session.server().id());
    auto idle = session.connectIdle(options.clients);
    std::this_thread::sleep_for(settlingTime);
    const Usage now = usageOf(session.server().id());
    nlohmann::json figures = {
        {"serverBytes", before.proportionalBytes},
        {"serverBytesPerClient",
         perClient(before.proportionalBytes, now.proportionalBytes, options.clients)},
        {"residentBytesPerClient",
         perClient(before.residentBytes, now.residentBytes, options.clients)},
        {"processor", processorTime(session, std::max(options.seconds, leastSeconds))},
    };
    // The process ends now. Some client library takes half a second to take leave of
    // its server, which for a thousand of them would be minutes.
    for (auto* clients : {&first, &idle}) {
        for (std::unique_ptr<CheckedClient>& client : *clients) {
            static_cast<void>(client.release());
        }
    }
    return figures;
}

}  // namespace kavri::bench
