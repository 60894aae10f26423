// What happened since the broker started, counted where it happens. Plain integers: all
// of it happens on the thread of the event loop.
#ifndef KAVRI_BROKER_ROUTING_COUNTS_H
#define KAVRI_BROKER_ROUTING_COUNTS_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "broker/session/close_cause.h"

namespace kavri::broker {

struct TrafficCounts {
    std::uint64_t requests = 0;   // delivered to a responder
    std::uint64_t responses = 0;  // delivered to an initiator
    std::uint64_t completions = 0;
    std::uint64_t publishedEvents = 0;  // each once, however many are subscribed
    std::uint64_t deliveredEvents = 0;  // each once for each subscriber
    // In place of a response, by the notice's status.
    std::uint64_t refused = 0;
    std::uint64_t noResponder = 0;
    std::uint64_t responderLost = 0;
    std::uint64_t overloaded = 0;
    std::uint64_t tooLarge = 0;  // for the link
    // Answers to no pending request, and events of a category that the sender does not serve.
    std::uint64_t droppedAnswers = 0;
    std::uint64_t droppedEvents = 0;

    std::uint64_t& noticesOf(kavri_core_status status) {
        switch (status) {
            case KAVRI_CORE_STATUS_IPC_REFUSED:
                return refused;
            case KAVRI_CORE_STATUS_IPC_NO_RESPONDER:
                return noResponder;
            case KAVRI_CORE_STATUS_IPC_OVERLOADED:
                return overloaded;
            case KAVRI_CORE_STATUS_IPC_TOO_LARGE:
                return tooLarge;
            default:
                return responderLost;
        }
    }
};

struct ConnectionCounts {
    std::uint64_t accepted = 0;
    std::size_t most = 0;  // at one time
    // Not accepted: its user may not connect, or there are too many.
    std::uint64_t notPermitted = 0;
    std::uint64_t aboveLimit = 0;
    std::uint64_t aboveLimitOfUser = 0;
    std::uint64_t outOfResources = 0;
    std::array<std::uint64_t, closeCauses.size()> closed{};

    std::uint64_t& closedBy(CloseCause cause) { return closed[static_cast<std::size_t>(cause)]; }
};

}  // namespace kavri::broker

#endif
