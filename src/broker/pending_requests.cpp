// The table of pending requests; see pending_requests.h.
#include "broker/pending_requests.h"

namespace kavri::broker {

std::uint64_t PendingRequests::open(Session& responder, Session& initiator,
                                    std::uint64_t initiatorToken) {
    const std::uint32_t index = takeSlot();
    Slot& opened = slot(index);
    opened.request = {&initiator, initiatorToken};
    opened.responder = &responder;
    initiator.charge.grow(bytesEach);
    opened.generation = ++lastGeneration_;
    opened.inFlight = {noRequest, responder.firstRequest};
    if (responder.firstRequest != noRequest) {
        slot(responder.firstRequest).inFlight.previous = index;
    }
    responder.firstRequest = index;
    ++responder.requestsInFlight;
    opened.sent = {noRequest, initiator.firstSent};
    if (initiator.firstSent != noRequest) {
        slot(initiator.firstSent).sent.previous = index;
    }
    initiator.firstSent = index;
    ++initiator.pendingRequests;
    return (static_cast<std::uint64_t>(opened.generation) << 32U) | index;
}

const PendingRequest* PendingRequests::find(const Session& responder, std::uint64_t token) const {
    const auto index = static_cast<std::uint32_t>(token);
    const auto generation = static_cast<std::uint32_t>(token >> 32U);
    if (index / slotsPerBlock >= blocks_.size() || blocks_[index / slotsPerBlock] == nullptr) {
        return nullptr;
    }
    const Slot& named = slot(index);
    const bool inFlight = named.responder == &responder && named.generation == generation;
    return inFlight ? &named.request : nullptr;
}

std::optional<PendingRequest> PendingRequests::closeAny(Session& responder) {
    if (responder.firstRequest == noRequest) {
        return std::nullopt;
    }
    const PendingRequest request = slot(responder.firstRequest).request;
    close(responder.firstRequest);
    return request;
}

void PendingRequests::abandonAll(Session& initiator) {
    while (initiator.firstSent != noRequest) {
        ++slot(initiator.firstSent).responder->abandonedRequests;
        close(initiator.firstSent);
    }
}

void PendingRequests::close(std::uint64_t token) {
    const auto index = static_cast<std::uint32_t>(token);
    Slot& closed = slot(index);
    Session& responder = *closed.responder;
    Session& initiator = *closed.request.initiator;
    const Links inFlight = closed.inFlight;
    (inFlight.previous == noRequest ? responder.firstRequest
                                    : slot(inFlight.previous).inFlight.next) = inFlight.next;
    if (inFlight.next != noRequest) {
        slot(inFlight.next).inFlight.previous = inFlight.previous;
    }
    --responder.requestsInFlight;
    const Links sent = closed.sent;
    (sent.previous == noRequest ? initiator.firstSent : slot(sent.previous).sent.next) = sent.next;
    if (sent.next != noRequest) {
        slot(sent.next).sent.previous = sent.previous;
    }
    --initiator.pendingRequests;
    closed.responder = nullptr;
    initiator.charge.shrink(bytesEach);
    freeSlot(index);
}

std::uint32_t PendingRequests::takeSlot() {
    const std::uint32_t place = firstWithRoom_ != noRequest ? firstWithRoom_ : addBlock();
    SlotBlock& block = *blocks_[place];
    const std::uint32_t offset = block.firstFree;
    block.firstFree = block.slots[offset].inFlight.next;
    if (++block.used == slotsPerBlock) {
        unlink(place);
    }
    return place * slotsPerBlock + offset;
}

// The last block with room stays, that a single request does not make and free
// one each time.
void PendingRequests::freeSlot(std::uint32_t index) {
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

std::uint32_t PendingRequests::addBlock() {
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

void PendingRequests::link(std::uint32_t block) {
    blocks_[block]->withRoom = {noRequest, firstWithRoom_};
    if (firstWithRoom_ != noRequest) {
        blocks_[firstWithRoom_]->withRoom.previous = block;
    }
    firstWithRoom_ = block;
}

void PendingRequests::unlink(std::uint32_t block) {
    const Links links = blocks_[block]->withRoom;
    (links.previous == noRequest ? firstWithRoom_ : blocks_[links.previous]->withRoom.next) =
        links.next;
    if (links.next != noRequest) {
        blocks_[links.next]->withRoom.previous = links.previous;
    }
}

}  // namespace kavri::broker
