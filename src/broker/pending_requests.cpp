// The table of pending requests; see pending_requests.h.
#include "broker/pending_requests.h"

namespace kavri::broker {

std::uint64_t PendingRequests::open(Session& responder, PendingRequest request) {
    std::uint32_t index = firstFree_;
    if (index == noRequest) {
        index = static_cast<std::uint32_t>(slots_.size());
        slots_.emplace_back();
    } else {
        firstFree_ = slots_[index].next;
    }
    Slot& slot = slots_[index];
    slot.request = request;
    slot.responder = responder.id;
    slot.used = true;
    slot.previous = noRequest;
    slot.next = responder.firstRequest;
    if (slot.next != noRequest) {
        slots_[slot.next].previous = index;
    }
    responder.firstRequest = index;
    ++responder.requestsInFlight;
    return (static_cast<std::uint64_t>(slot.generation) << 32U) | index;
}

const PendingRequest* PendingRequests::find(const Session& responder, std::uint64_t token) const {
    const auto index = static_cast<std::uint32_t>(token);
    const auto generation = static_cast<std::uint32_t>(token >> 32U);
    if (index >= slots_.size()) {
        return nullptr;
    }
    const Slot& slot = slots_[index];
    const bool inHand =
        slot.used && slot.generation == generation && slot.responder == responder.id;
    return inHand ? &slot.request : nullptr;
}

void PendingRequests::close(Session& responder, std::uint64_t token) {
    const auto index = static_cast<std::uint32_t>(token);
    Slot& slot = slots_[index];
    (slot.previous == noRequest ? responder.firstRequest : slots_[slot.previous].next) = slot.next;
    if (slot.next != noRequest) {
        slots_[slot.next].previous = slot.previous;
    }
    --responder.requestsInFlight;
    slot.used = false;
    ++slot.generation;
    slot.next = firstFree_;
    firstFree_ = index;
}

std::optional<PendingRequest> PendingRequests::closeAny(Session& responder) {
    if (responder.firstRequest == noRequest) {
        return std::nullopt;
    }
    const std::uint32_t index = responder.firstRequest;
    const PendingRequest request = slots_[index].request;
    close(responder, index);
    return request;
}

}  // namespace kavri::broker
