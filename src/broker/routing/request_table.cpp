// The table of pending requests; see request_table.h.
#include "broker/routing/request_table.h"

#include "base/assert.h"

namespace kavri::broker {

std::uint64_t RequestTable::open(Session& responder, Session& initiator,
                                 std::uint64_t initiatorToken, Clock::time_point sentAt) {
    const std::uint32_t index = takeSlot();
    Slot& opened = slot(index);
    opened.request = {&initiator, initiatorToken, sentAt};
    opened.responder = &responder;
    initiator.charge.grow(bytesEach);
    opened.generation = ++lastGeneration_;
    opened.inFlight = {noRequest, responder.asResponder.firstRequest};
    if (responder.asResponder.firstRequest != noRequest) {
        slot(responder.asResponder.firstRequest).inFlight.previous = index;
    }
    responder.asResponder.firstRequest = index;
    ++responder.asResponder.requestsInFlight;
    opened.sent = {noRequest, initiator.asInitiator.firstSent};
    if (initiator.asInitiator.firstSent != noRequest) {
        slot(initiator.asInitiator.firstSent).sent.previous = index;
    }
    initiator.asInitiator.firstSent = index;
    ++initiator.asInitiator.pendingRequests;
    return (static_cast<std::uint64_t>(opened.generation) << 32U) | index;
}

const PendingRequest* RequestTable::find(const Session& responder, std::uint64_t token) const {
    const auto index = static_cast<std::uint32_t>(token);
    const auto generation = static_cast<std::uint32_t>(token >> 32U);
    if (index / slotsPerBlock >= blocks_.size() || blocks_[index / slotsPerBlock] == nullptr) {
        return nullptr;
    }
    const Slot& named = slot(index);
    const bool inFlight = named.responder == &responder && named.generation == generation;
    return inFlight ? &named.request : nullptr;
}

std::optional<PendingRequest> RequestTable::closeAny(Session& responder) {
    if (responder.asResponder.firstRequest == noRequest) {
        return std::nullopt;
    }
    const PendingRequest request = slot(responder.asResponder.firstRequest).request;
    close(responder.asResponder.firstRequest);
    return request;
}

void RequestTable::abandonAll(Session& initiator) {
    while (initiator.asInitiator.firstSent != noRequest) {
        ++slot(initiator.asInitiator.firstSent).responder->asResponder.abandonedRequests;
        close(initiator.asInitiator.firstSent);
    }
}

void RequestTable::close(std::uint64_t token) {
    const auto index = static_cast<std::uint32_t>(token);
    Slot& closed = slot(index);
    KAVRI_ASSERT(closed.responder != nullptr, "a request is closed once");
    Session& responder = *closed.responder;
    Session& initiator = *closed.request.initiator;
    const Links inFlight = closed.inFlight;
    (inFlight.previous == noRequest ? responder.asResponder.firstRequest
                                    : slot(inFlight.previous).inFlight.next) = inFlight.next;
    if (inFlight.next != noRequest) {
        slot(inFlight.next).inFlight.previous = inFlight.previous;
    }
    --responder.asResponder.requestsInFlight;
    const Links sent = closed.sent;
    (sent.previous == noRequest ? initiator.asInitiator.firstSent : slot(sent.previous).sent.next) =
        sent.next;
    if (sent.next != noRequest) {
        slot(sent.next).sent.previous = sent.previous;
    }
    --initiator.asInitiator.pendingRequests;
    closed.responder = nullptr;
    initiator.charge.shrink(bytesEach);
    freeSlot(index);
}

std::uint32_t RequestTable::takeSlot() {
    const std::uint32_t place = firstWithRoom_ != noRequest ? firstWithRoom_ : addBlock();
    SlotBlock& block = *blocks_[place];
    const std::uint32_t offset = block.firstFree;
    block.firstFree = block.slots[offset].inFlight.next;
    if (++block.used == slotsPerBlock) {
        unlink(place);
    }
    return place * slotsPerBlock + offset;
}

// The last block with room stays, so that a single request does not allocate and free
// one each time.
void RequestTable::freeSlot(std::uint32_t index) {
    const std::uint32_t place = index / slotsPerBlock;
    const std::uint32_t offset = index % slotsPerBlock;
    SlotBlock& block = *blocks_[place];
    block.slots[offset].inFlight.next = block.firstFree;
    block.firstFree = offset;
    if (block.used-- == slotsPerBlock) {
        link(place);
    }
    const bool isOnlyOneWithRoom = firstWithRoom_ == place && block.withRoom.next == noRequest;
    if (block.used == 0 && !isOnlyOneWithRoom) {
        unlink(place);
        blocks_[place] = nullptr;
        freePlaces_.push_back(place);
    }
}

std::uint32_t RequestTable::addBlock() {
    auto block = std::make_unique<SlotBlock>();
    for (std::uint32_t offset = 0; offset < slotsPerBlock; ++offset) {
        block->slots[offset].inFlight.next = offset + 1;
    }
    if (freePlaces_.empty()) {
        freePlaces_.reserve(blocks_.size() + 1);  // so that freeing never allocates
        blocks_.emplace_back();
        freePlaces_.push_back(static_cast<std::uint32_t>(blocks_.size() - 1));
    }
    const std::uint32_t place = freePlaces_.back();
    freePlaces_.pop_back();
    blocks_[place] = std::move(block);
    link(place);
    return place;
}

void RequestTable::link(std::uint32_t block) {
    blocks_[block]->withRoom = {noRequest, firstWithRoom_};
    if (firstWithRoom_ != noRequest) {
        blocks_[firstWithRoom_]->withRoom.previous = block;
    }
    firstWithRoom_ = block;
}

void RequestTable::unlink(std::uint32_t block) {
    const Links links = blocks_[block]->withRoom;
    (links.previous == noRequest ? firstWithRoom_ : blocks_[links.previous]->withRoom.next) =
        links.next;
    if (links.next != noRequest) {
        blocks_[links.next]->withRoom.previous = links.previous;
    }
}

}  // namespace kavri::broker
