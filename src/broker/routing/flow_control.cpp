// The rules of flow control; see flow_control.h.
#include "broker/routing/flow_control.h"

#include "base/assert.h"
#include "wire/frame.h"

namespace kavri::broker {

namespace {

// The line in which a sender waits, by the frame with which it waits.
WaitingLine& lineFor(const Session& sender, const Session& on, Congestion& congestion) {
    bool isLarge = static_cast<bool>(sender.input.large);
    if (!isLarge && sender.input.backlog) {
        const wire::Extent extent = wire::extentOf(sender.input.backlogBegin());
        isLarge = extent.headBytes + extent.payloadBytes >= wire::largeFrameBytes;
    }
    return isLarge && on.role == Role::responder ? congestion.largeRequests : congestion.senders;
}

bool isSteady(const Session& session) {
    return session.congestion == nullptr || session.congestion->meter.isSteady();
}

}  // namespace

FlowControl::Verdict FlowControl::request(const Session& from, Session& responder,
                                          std::size_t frameBytes) {
    const bool steady = isSteady(responder);
    if (isCongested(responder)) {
        return steady ? Verdict::wait : Verdict::refuse;
    }
    const bool isLarge = frameBytes >= wire::largeFrameBytes;
    if (steady && isLarge && responder.sendQueue.bytes() > aheadOfLargeBytes) {
        return Verdict::wait;
    }
    Congestion* congestion = responder.congestion.get();
    if (congestion == nullptr) {
        return Verdict::deliver;
    }
    const bool largeWaits = !congestion->largeRequests.empty();
    if (steady && !hasTurn(from, responder) &&
        (!congestion->senders.empty() ||
         (largeWaits && (isLarge || congestion->passedBytes >= passingLargeBytes)))) {
        return Verdict::wait;
    }
    if (largeWaits && !isLarge) {
        congestion->passedBytes += frameBytes;
    }
    return Verdict::deliver;
}

bool FlowControl::mustWaitToBegin(Session& from, const Session& responder,
                                  std::size_t frameBytes) const {
    if (responder.congestion == nullptr || !isSteady(responder) || !isShort(from, frameBytes)) {
        return false;
    }
    if (!hasTurn(from, responder)) {
        return true;
    }
    // In its turn it is let in, up to three quarters of the share; and in any case
    // when there is nothing left of the responder's to wait for.
    from.waiting.isLetIn = responder.sendQueue.empty() ||
                           from.account.memory.bytes() + frameBytes <= limits_.bytesPerUser / 4 * 3;
    return !from.waiting.isLetIn;
}

bool FlowControl::mustWait(const Session& from, const Session& receiver) const {
    if (receiver.isClosing || !isSteady(receiver)) {
        return false;
    }
    return isCongested(receiver) ||
           (receiver.congestion != nullptr && !receiver.congestion->senders.empty() &&
            !hasTurn(from, receiver));
}

void FlowControl::block(Session& sender, Session& on, Clock::time_point now) {
    KAVRI_ASSERT(!sender.isBlocked(), "a session is blocked on one other at a time");
    Congestion& congestion = congestionOf(on, now);
    sender.waiting.on = &on;
    if (&sender == &on) {
        congestion.waitsForItself = true;
    } else {
        WaitingLine& line = lineFor(sender, on, congestion);
        sender.waiting.isLetIn ? line.prepend(sender) : line.append(sender);
    }
}

void FlowControl::unblock(Session& sender) {
    Session* const on = sender.waiting.on;
    if (on == nullptr) {
        return;
    }
    if (on == &sender) {
        on->congestion->waitsForItself = false;
    } else {
        sender.waiting.line->remove(sender);
    }
    sender.waiting.on = nullptr;
}

void FlowControl::beginTurn(Session& sender, Session& at) {
    turn_ = {&sender, &at};
    if (sender.waiting.line == &at.congestion->largeRequests) {
        at.congestion->passedBytes = 0;
    }
    unblock(sender);
}

Session* FlowControl::nextAt(Session& at) const {
    if (at.congestion == nullptr) {
        return nullptr;
    }
    const Congestion& congestion = *at.congestion;
    const bool hasRoom = hasRoomAgain(at);
    if (congestion.waitsForItself && (hasRoom || at.isClosing)) {
        return &at;
    }
    // Nobody waits for one that is given up on, or goes.
    const bool allGo = at.isClosing || !congestion.meter.isSteady();
    const bool largeIsDue =
        !congestion.largeRequests.empty() && congestion.passedBytes >= passingLargeBytes;
    if (!congestion.senders.empty() && (allGo || (hasRoom && !largeIsDue))) {
        return congestion.senders.first();
    }
    if (allGo || (hasRoom && at.sendQueue.bytes() <= aheadOfLargeBytes)) {
        return congestion.largeRequests.first();
    }
    return nullptr;
}

Congestion& FlowControl::congestionOf(Session& session, Clock::time_point now) const {
    if (session.congestion == nullptr) {
        session.congestion = std::make_unique<Congestion>(DrainMeter(limits_, now));
    }
    return *session.congestion;
}

void WaitingLine::insert(Session& sender, Session* previous, Session* next) {
    KAVRI_ASSERT(sender.waiting.line == nullptr, "a sender waits in one line at most");
    sender.waiting.line = this;
    sender.waiting.previous = previous;
    sender.waiting.next = next;
    (previous == nullptr ? first_ : previous->waiting.next) = &sender;
    (next == nullptr ? last_ : next->waiting.previous) = &sender;
}

void WaitingLine::remove(Session& sender) {
    KAVRI_ASSERT(sender.waiting.line == this, "a sender leaves the line in which it waits");
    Session* const previous = sender.waiting.previous;
    Session* const next = sender.waiting.next;
    (previous == nullptr ? first_ : previous->waiting.next) = next;
    (next == nullptr ? last_ : next->waiting.previous) = previous;
    sender.waiting.line = nullptr;
}

}  // namespace kavri::broker
