// Accepts connections: a few in each round of the event loop, so that a storm of
// them costs established sessions little, and only those that may connect. Keeps
// the listening socket reachable under its name.
#ifndef KAVRI_BROKER_LOOP_ACCEPTOR_H
#define KAVRI_BROKER_LOOP_ACCEPTOR_H

#include <functional>
#include <string_view>

#include "broker/loop/deadlines.h"
#include "broker/loop/listener.h"
#include "broker/loop/readiness.h"
#include "broker/loop/sessions.h"
#include "broker/routing/counts.h"
#include "broker/session/policy.h"
#include "wire/frame.h"
#include "wire/limits.h"

namespace kavri::broker {

class Acceptor {
  public:
    struct Surroundings {
        Readiness& readiness;
        Deadlines& deadlines;
        SessionTable& sessions;
        // May change at any time; each connection is judged by their present values.
        const wire::Limits& limits;
        const Policy& policy;
        ConnectionCounts& counts;
        // Opens a session for a connection that is admitted.
        std::function<void(const Accepted&)> open;
    };

    Acceptor(Listener& listener, Surroundings surroundings);

    // Accepts some of the pending connections: one in a short round, more in one that
    // is long anyway because many descriptors are ready. When the process has run out
    // of descriptors, pauses until a deadline of kind `listen`.
    void acceptSome(std::size_t readyDescriptors, Clock::time_point now);
    // Ends that pause.
    void listen();
    // Call when the listener's files may have been removed: makes them again.
    // Throws CannotListen.
    void keepListening(Clock::time_point now);

  private:
    static constexpr std::size_t acceptsPerRound = 16;
    static constexpr std::size_t readyForEachAccept = 16;
    static constexpr std::chrono::milliseconds pause{100};

    // Why the connection is refused; an empty reason where it is not.
    struct Refusal {
        kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
        std::string_view reason;
        std::uint64_t ConnectionCounts::*counter = nullptr;
    };

    void accept(std::size_t most, Clock::time_point now);
    void pauseUntil(Clock::time_point end);
    Refusal refusalOf(const Accepted& accepted);
    void refuse(const Accepted& accepted, const Refusal& refusal);

    Listener& listener_;
    const Surroundings surroundings_;
    bool isListening_ = false;
};

}  // namespace kavri::broker

#endif
