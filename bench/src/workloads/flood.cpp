// One initiator's round trips, alone and while another floods the broker with
// payloads of 1 MiB, to the same service or another one.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

#include "figures.h"
#include "session.h"
#include "workloads/round_trips.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

constexpr std::size_t floodBytes = 1024UL * 1024;
constexpr std::size_t floodWindow = 8;
constexpr std::chrono::milliseconds settlingTime{200};

// SIGTERM waits to be found here: it interrupts no transport in its work.
class EndingSignal {
  public:
    EndingSignal() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    }
    bool hasCome() const {
        const timespec now{};
        return sigtimedwait(&set_, nullptr, &now) == SIGTERM;
    }

  private:
    sigset_t set_{};
};

}  // namespace

nlohmann::json measureFlood(const Options& options) {
    Session session(options, false);
    const std::string target = options.floodsOther ? otherServiceName : serviceName;
    if (options.floodsOther) {
        session.startService(target);
    }
    const std::unique_ptr<CheckedClient> client = session.connect(options.payloadBytes);
    roundTripsFor(*client, options.seconds / 4);
    Latencies alone = roundTripsFor(*client, options.seconds / 2);
    Child flood = session.startHelper({"run-flood", "--service", target}, true);
    flood.outputLine();  // it flows
    std::this_thread::sleep_for(settlingTime);
    Latencies flooded = roundTripsFor(*client, options.seconds);
    flood.signal(SIGTERM);
    const double floodPerSecond = std::stod(flood.outputLine());
    if (floodPerSecond == 0) {
        throw std::runtime_error("there was no flood");
    }
    return {{"alone", alone.figures()},
            {"flooded", flooded.figures()},
            {"p99Ratio", flooded.percentileUs(99) / alone.percentileUs(99)},
            {"floodBytesPerSecond", floodPerSecond * floodBytes}};
}

void runFlood(const Transport& transport, const Place& place, const std::string& service) {
    const EndingSignal ending;
    CheckedClient client(transport.connect(place, service), 0, floodBytes);
    for (std::size_t i = 0; i < floodWindow; ++i) {
        client.send();
    }
    std::cout << "flowing" << std::endl;
    const Clock::time_point begin = Clock::now();
    while (!ending.hasCome()) {
        client.receive();
        client.send();
    }
    std::cout << static_cast<double>(client.received()) / secondsBetween(begin, Clock::now())
              << std::endl;
    ::_exit(0);
}

}  // namespace kavri::bench
