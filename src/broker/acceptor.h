// Accepts connections: a few in each round of the event loop, so that a storm of
// them costs established sessions little, and only those that may connect. Keeps
// the listening socket reachable under its name.
#ifndef KAVRI_BROKER_ACCEPTOR_H
#define KAVRI_BROKER_ACCEPTOR_H

#include <functional>
#include <string_view>

#include "broker/deadlines.h"
#include "broker/listener.h"
#include "broker/policy.h"
#include "broker/readiness.h"
#include "broker/sessions.h"
#include "interfaces/frame.h"
#include "interfaces/limits.h"

namespace kavri::broker {

class Acceptor {
  public:
    struct Surroundings {
        Readiness& readiness;
        Deadlines& deadlines;
        SessionTable& sessions;
        // May change; what they are when a connection comes counts.
        const interfaces::Limits& limits;
        const Policy& policy;
        // Makes a session of a connection that may be one.
        std::function<void(const Accepted&)> open;
    };

    Acceptor(Listener& listener, Surroundings surroundings);

    // Accepts some of the connections that wait: one in a short round, more in one
    // that is long anyway because much is ready. Where descriptors are out, pauses
    // until a deadline of kind `listen`.
    void acceptSome(std::size_t readyDescriptors, Clock::time_point now);
    // Ends such a pause.
    void listen();
    // To be called when the listener's files may have gone: makes them again.
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
    };

    void accept(std::size_t most, Clock::time_point now);
    void pauseUntil(Clock::time_point end);
    Refusal refusalOf(const Accepted& accepted);
    static void refuse(const Accepted& accepted, const Refusal& refusal);

    Listener& listener_;
    const Surroundings surroundings_;
    bool isListening_ = false;
};

}  // namespace kavri::broker

#endif
