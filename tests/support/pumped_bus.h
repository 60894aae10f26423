// A bus of a test, whose descriptor the test waits for.
#ifndef KAVRI_TESTS_SUPPORT_PUMPED_BUS_H
#define KAVRI_TESTS_SUPPORT_PUMPED_BUS_H

#include <poll.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "broker/link/bus_module.h"
#include "support/waiting.h"

namespace kavri::tests {

class PumpedBus {
  public:
    struct Received {
        broker::Bus::SubscriptionId subscription;
        std::string subject;
        std::string replyTo;
        std::string data;
        bool nobodyListens;
    };

    explicit PumpedBus(const broker::BusOptions& options) : bus_(broker::loadBus(options)) {}

    broker::Bus& operator*() { return *bus_; }
    broker::Bus* operator->() { return bus_.get(); }
    void destroy() { bus_.reset(); }

    std::vector<Received> received;

    // Flushes, and handles what there is, until the condition holds; false where it never does.
    template <typename Condition>
    bool until(const Condition& condition) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            handle(1);
        }
        return true;
    }
    void handle(int waitMs) {
        bus_->flush();
        pollfd ready{bus_->descriptor(), POLLIN, 0};
        if (::poll(&ready, 1, waitMs) <= 0) {
            return;
        }
        bus_->handle();
        while (const auto message = bus_->next()) {
            received.push_back({message->subscription, std::string(message->subject),
                                std::string(message->replyTo), std::string(message->data),
                                message->nobodyListens});
        }
    }
    bool comesUp(std::uint64_t times = 1) {
        return until([&] { return bus_->connection().isUp && bus_->connection().times == times; });
    }
    bool goesDown() {
        return until([&] { return !bus_->connection().isUp; });
    }
    bool receives(std::size_t count) {
        return until([&] { return received.size() >= count; });
    }

  private:
    std::unique_ptr<broker::Bus> bus_;
};

}  // namespace kavri::tests

#endif
