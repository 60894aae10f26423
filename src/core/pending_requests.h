// The requests of an initiator that have no outcome yet, and the failures that its caller
// has not received yet.
//
// Correlation tokens rise by one from request to request, so the requests are a queue of
// states. A failure is received once no request sent after the failed one is pending: so a
// command that is never answered does not end a receive for the response to a later request,
// and a receive for the failed one ends at once. For an outcome callback the uuids are kept
// beside the states, and each outcome can be taken as soon as it is known.
//
// Recording an outcome allocates nothing, and looks at no other request while there is no
// failure. Not thread-safe: guarded by the endpoint's lock.
#ifndef KAVRI_CORE_PENDING_REQUESTS_H
#define KAVRI_CORE_PENDING_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>

#include "kavri/core.h"
#include "wire/frame.h"

namespace kavri::core {

class PendingRequests {
  public:
    std::uint64_t nextToken() const { return first_ + states_.size(); }
    // Keeps the uuids of the requests, for the outcomes. Called before any is added.
    void keepUuids() { keepsUuids_ = true; }

    // Adds the requests with the next tokens. Strong guarantee.
    void add(std::span<const wire::Frame> requests);
    // Drops the last that were added, pending or failed: the call that sent them reports
    // them itself.
    void takeBack(std::size_t count);

    // Ends a pending request; false when no pending request has this token.
    bool close(std::uint64_t token);

    // Ends a pending request that gets no answer, which is an outcome where uuids are kept.
    void complete(std::uint64_t token);

    // Ends a pending request with a failure, or all of them.
    void fail(std::uint64_t token, kavri_core_status status);
    void failAll(kavri_core_status status);

    // Whether a failure can be received now; and takes the oldest of these.
    bool hasFailure() { return failures_ > 0 && oldestReceivable() != nextToken(); }
    kavri_core_status takeFailure();

    // Where uuids are kept: whether there is an outcome, and takes the oldest.
    struct Outcome {
        std::string uuid;
        kavri_core_status status;
    };
    bool hasOutcome() const { return failures_ > 0; }
    Outcome takeOutcome();

  private:
    // Over, pending, ended without an answer, or the status of a failure; of the last two,
    // what was not received.
    using State = std::uint8_t;
    static constexpr State over = 0;
    static constexpr State unanswered = UINT8_MAX - 1;
    static constexpr State pending = UINT8_MAX;

    State& stateOf(std::uint64_t token) { return states_[token - first_]; }
    bool isPending(std::uint64_t token) {
        return token >= first_ && token < nextToken() && stateOf(token) == pending;
    }
    static bool isFailure(State state) { return state != over && state != pending; }
    void record(std::uint64_t token, State state);
    // From the token on; nextToken() where there is none.
    std::uint64_t findFailure(std::uint64_t from);
    std::uint64_t oldestReceivable();
    void dropFailure(std::uint64_t token);
    void popOver();

    std::uint64_t first_ = 1;   // the token of the first of
    std::deque<State> states_;  // all requests from the oldest that is not over
    bool keepsUuids_ = false;
    std::deque<std::string> uuids_;  // of the same requests, where they are kept
    std::size_t failures_ = 0;       // how many of them
    std::uint64_t noneBelow_ = 1;    // no failure has a smaller token
    std::uint64_t noneAbove_ = 0;    // no pending request has a greater token
};

}  // namespace kavri::core

#endif
