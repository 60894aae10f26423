// Which number the next message of each publisher of a category has. No I/O.
//
// Servers that lost each other may deliver what was on its way late, behind later messages;
// so the numbers outlast the subscription.
#ifndef KAVRI_BROKER_LINK_PUBLISHER_NUMBERS_H
#define KAVRI_BROKER_LINK_PUBLISHER_NUMBERS_H

#include <cstddef>
#include <cstdint>
#include <map>

#include "broker/link/envelope.h"

namespace kavri::broker {

class PublisherNumbers {
  public:
    // Whoever may publish could otherwise make up publishers without end.
    static constexpr std::size_t mostPublishers = 1024;

    enum class Order { next, repeated, afterMissed };
    Order orderOf(const Envelope& envelope) {
        const auto known = next_.find(envelope.sender);
        if (known == next_.end()) {
            if (next_.size() >= mostPublishers) {
                next_.clear();
            }
            next_.emplace(envelope.sender, Next{envelope.number + 1, true});
            return Order::next;
        }
        Next& next = known->second;
        if (envelope.number < next.number) {
            return Order::repeated;
        }
        const bool isNext = envelope.number == next.number || !next.isAwaited;
        next = {envelope.number + 1, true};
        return isNext ? Order::next : Order::afterMissed;
    }

    // Nobody listens for a while: what is not heard then is not missed.
    void pause() {
        for (auto& [sender, next] : next_) {
            next.isAwaited = false;
        }
    }

  private:
    struct Next {
        std::uint64_t number = 0;
        bool isAwaited = true;
    };
    std::map<BrokerIdentity, Next> next_;
};

}  // namespace kavri::broker

#endif
