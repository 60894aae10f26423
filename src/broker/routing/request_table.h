// The requests that responders have not answered yet: where each answer is to go.
//
// A table of slots in blocks that come and go with the load. The token that a
// responder sees names a slot and one use of it, so that a second answer, or one
// from a responder that the request never went to, finds nothing. Each slot is in
// two lists, its responder's and its initiator's, and is freed when either
// leaves; it is charged to the initiator's user.
#ifndef KAVRI_BROKER_ROUTING_REQUEST_TABLE_H
#define KAVRI_BROKER_ROUTING_REQUEST_TABLE_H

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "broker/session/session.h"

namespace kavri::broker {

struct PendingRequest {
    Session* initiator = nullptr;
    std::uint64_t initiatorToken = 0;
    Clock::time_point sentAt{};  // where somebody monitors
};

class RequestTable {
    struct Links {
        std::uint32_t previous = noRequest;
        std::uint32_t next = noRequest;
    };
    struct Slot {
        PendingRequest request;
        Session* responder = nullptr;  // null where the slot is free
        std::uint32_t generation = 0;
        Links inFlight;  // in the responder's list; among the free slots, next alone
        Links sent;      // in the initiator's
    };

  public:
    // What a pending request is charged.
    static constexpr std::size_t bytesEach = sizeof(Slot);

    // The token under which `responder` gets the request.
    std::uint64_t open(Session& responder, Session& initiator, std::uint64_t initiatorToken,
                       Clock::time_point sentAt = {});

    // The request that `responder` has in flight under the token, or null.
    const PendingRequest* find(const Session& responder, std::uint64_t token) const;

    // Ends it; the token must be one that find knows.
    void close(std::uint64_t token);

    // Ends one that `responder` has in flight, whichever; nothing when there is none.
    std::optional<PendingRequest> closeAny(Session& responder);

    // Ends all that the initiator sent; their responders may still answer them.
    void abandonAll(Session& initiator);

    // How many slots there is memory for.
    std::size_t capacity() const { return (blocks_.size() - freePlaces_.size()) * slotsPerBlock; }

  private:
    static constexpr std::uint32_t slotsPerBlock = 256;

    struct SlotBlock {
        std::array<Slot, slotsPerBlock> slots;
        std::uint32_t used = 0;
        std::uint32_t firstFree = 0;
        Links withRoom;  // among the blocks that have free slots
    };

    Slot& slot(std::uint32_t index) const {
        return blocks_[index / slotsPerBlock]->slots[index % slotsPerBlock];
    }
    std::uint32_t takeSlot();
    void freeSlot(std::uint32_t index);
    std::uint32_t addBlock();
    void link(std::uint32_t block);
    void unlink(std::uint32_t block);

    std::vector<std::unique_ptr<SlotBlock>> blocks_;
    std::vector<std::uint32_t> freePlaces_;  // in blocks_
    std::uint32_t firstWithRoom_ = noRequest;
    std::uint32_t lastGeneration_ = 0;
};

}  // namespace kavri::broker

#endif
