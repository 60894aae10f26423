// The requests that responders have in hand: where each answer is to go.
//
// A table of slots that are used again; the token that a responder sees names a
// slot and how often it was used, so that a second answer, or one from a
// responder that the request never went to, finds nothing.
#ifndef KAVRI_BROKER_PENDING_REQUESTS_H
#define KAVRI_BROKER_PENDING_REQUESTS_H

#include <cstdint>
#include <optional>
#include <vector>

#include "broker/session.h"

namespace kavri::broker {

struct PendingRequest {
    SessionId initiator;
    std::uint64_t initiatorToken = 0;
};

class PendingRequests {
  public:
    // The token under which `responder` gets the request.
    std::uint64_t open(Session& responder, PendingRequest request);

    // The request that `responder` has in hand under the token, or null.
    const PendingRequest* find(const Session& responder, std::uint64_t token) const;

    // Ends it; the token must be one that find knows.
    void close(Session& responder, std::uint64_t token);

    // Ends one that `responder` has in hand, whichever; nothing when there is none.
    std::optional<PendingRequest> closeAny(Session& responder);

  private:
    struct Slot {
        PendingRequest request;
        SessionId responder;
        std::uint32_t generation = 0;
        std::uint32_t previous = noRequest;  // in the responder's list, or
        std::uint32_t next = noRequest;      // among the free slots
        bool used = false;
    };

    std::vector<Slot> slots_;
    std::uint32_t firstFree_ = noRequest;
};

}  // namespace kavri::broker

#endif
