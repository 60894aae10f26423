// The initiator; see initiator.h.
#include "core/initiator.h"

#include <algorithm>
#include <utility>

#include "core/connection/frame_status.h"

namespace kavri::core {

using wire::Field;
using wire::Frame;
using wire::FrameType;

Initiator::Initiator(Settings chosen) : Endpoint(std::move(chosen)) {
    outcomeCallback_.set(settings().outcomeCallback, settings().outcomeContext);
    if (outcomeCallback_.isInstalled()) {
        pending_.keepUuids();
    }
}

kavri_core_status Initiator::send(std::span<Frame> requests, std::size_t& sent) {
    Lock lock = acquire();
    CallDeadline deadline(sendTimeout());
    return sendFrames(lock, requests, &pending_, deadline, sent);
}

kavri_core_status Initiator::receive(int timeoutMs, Message::Fields& fields) {
    Lock lock = acquire();
    const auto isReady = [this] {
        return responseCallback_.isInstalled() || !responses_.empty() || hasFailure();
    };
    const auto outcome = [this, &fields]() -> std::optional<kavri_core_status> {
        if (responseCallback_.isInstalled()) {
            return KAVRI_CORE_STATUS_IPC_FAILED;
        }
        if (responses_.empty() && hasFailure()) {
            handleFrames();  // a response that has arrived goes first
        }
        if (!responses_.empty()) {
            fields = take(responses_);
            return KAVRI_CORE_STATUS_NO_ERROR;
        }
        return hasFailure() ? std::optional(pending_.takeFailure()) : std::nullopt;
    };
    // It returns other reasons, such as a refusal, as outcomes of requests only.
    const auto unconnected = [](kavri_core_status status) {
        return status == KAVRI_CORE_STATUS_OUT_OF_RESOURCES
                   ? status
                   : KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
    };
    return receiveNext(lock, timeoutMs, isReady, outcome, unconnected);
}

kavri_core_status Initiator::setResponseCallback(
    kavri_core_ipc_initiator_response_callback callback, void* context) {
    Lock lock = acquire();
    install(lock, responseCallback_, callback, context);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status Initiator::setEventCallback(kavri_core_ipc_initiator_event_callback callback,
                                              void* context) {
    Lock lock = acquire();
    install(lock, eventCallback_, callback, context);
    if (!eventCallback_.isInstalled()) {
        dropEvents(std::nullopt);
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status Initiator::subscribe(const std::string& category) {
    Lock lock = acquire();
    return changeSubscription(lock, FrameType::subscribe, category);
}

// The subscription is over in this library from now on, whatever the broker answers.
kavri_core_status Initiator::unsubscribe(std::string_view category) {
    Lock lock = acquire();
    if (const auto found = subscriptions_.find(category); found != subscriptions_.end()) {
        subscriptions_.erase(found);
    }
    dropEvents(category);
    return changeSubscription(lock, FrameType::unsubscribe, std::string(category));
}

Frame Initiator::addChange(FrameType type, const std::string& category, bool awaited) {
    Frame frame;
    frame.type = type;
    frame.token = ++lastChange_;
    frame[Field::category] = category;
    changes_.emplace(frame.token, SubscriptionChange{type, category, awaited, std::nullopt});
    return frame;
}

kavri_core_status Initiator::changeSubscription(Lock& lock, FrameType type,
                                                const std::string& category) {
    const Frame frame = addChange(type, category, true);
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    try {
        status = sendAndAwaitAnswer(lock, frame);
    } catch (...) {
        changes_.erase(frame.token);
        throw;
    }
    changes_.erase(frame.token);
    return status;
}

kavri_core_status Initiator::sendAndAwaitAnswer(Lock& lock, const Frame& frame) {
    const SubscriptionChange& change = changes_.at(frame.token);
    CallDeadline deadline(sendTimeout());
    const kavri_core_status status = sendFrame(lock, frame, deadline);
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return status;
    }
    const Wait wait = waitUntil(lock, deadline, [&change] { return change.answer.has_value(); });
    return wait == Wait::ready  ? *change.answer
           : wait == Wait::lost ? KAVRI_CORE_STATUS_IPC_CONNECTION_LOST
                                : KAVRI_CORE_STATUS_IPC_OVERLOADED;
}

bool Initiator::restore(Lock& lock, CallDeadline& deadline) {
    const std::uint64_t connection = connectionNumber();
    const std::set<std::string, std::less<>> restored = subscriptions_;
    return std::ranges::all_of(restored, [&](const std::string& category) {
        const Frame frame = addChange(FrameType::subscribe, category, false);
        const bool isSent =
            sendFrameOver(lock, connection, frame, deadline) == KAVRI_CORE_STATUS_NO_ERROR;
        if (!isSent) {
            changes_.erase(frame.token);  // another connection may be there by now
        }
        return isSent;
    });
}

bool Initiator::isRestored() const {
    return std::ranges::all_of(changes_, [](const auto& entry) { return entry.second.awaited; });
}

void Initiator::handleLoss() {
    pending_.failAll(KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    std::erase_if(changes_, [](const auto& entry) { return !entry.second.awaited; });
}

void Initiator::frameReceived(const Frame& frame, Text& payload) {
    switch (frame.type) {
        case FrameType::response:
            handleResponse(frame, payload);
            break;
        case FrameType::completion:
            pending_.complete(frame.token);
            break;
        case FrameType::notice:
            pending_.fail(frame.token, failureIn(frame, KAVRI_CORE_STATUS_IPC_RESPONDER_LOST));
            break;
        case FrameType::event:
            handleEvent(frame, payload);
            break;
        case FrameType::acknowledgement:
            handleAcknowledgement(frame);
            break;
        default:
            break;  // an initiator has no use for these
    }
}

// A response to nothing that is pending would be a second one. The request ends only once
// its response is stored.
void Initiator::handleResponse(const Frame& frame, Text& payload) {
    responses_.emplace_back(frame, payload);
    if (!pending_.close(frame.token)) {
        responses_.pop_back();
        log().warning({"dropped a response to a request that is not pending"});
        return;
    }
    queued(responses_.back());
}

void Initiator::handleEvent(const Frame& frame, Text& payload) {
    if (eventCallback_.isInstalled() && subscriptions_.contains(frame[Field::category])) {
        events_.emplace_back(frame, payload);
        queued(events_.back());
    }
}

// Takes effect before the next frame is handled, which may be an event of the category. The
// answer is stored last: where memory runs out, the frame is handled once more.
void Initiator::handleAcknowledgement(const Frame& frame) {
    const auto found = changes_.find(frame.token);
    if (found == changes_.end()) {
        return;
    }
    SubscriptionChange& change = found->second;
    const kavri_core_status status = statusIn(frame);
    if (change.type == FrameType::subscribe) {
        if (status == KAVRI_CORE_STATUS_NO_ERROR) {
            subscriptions_.insert(change.category);
        } else {
            subscriptions_.erase(change.category);
            log().warning({"subscription to \"", change.category,
                           "\" failed: ", kavri_core_status_text(status)});
        }
    }
    change.answer = status;
    if (!change.awaited) {
        changes_.erase(found);
    }
}

// Of one category, or all.
void Initiator::dropEvents(std::optional<std::string_view> ofCategory) {
    std::erase_if(events_, [this, ofCategory](const Message& event) {
        const bool dropped = !ofCategory || event.category() == *ofCategory;
        if (dropped) {
            dequeued(event);
        }
        return dropped;
    });
}

void Initiator::dropMessages() {
    responses_.clear();
    events_.clear();
}

bool Initiator::hasDelivery() const {
    return (responseCallback_.isInstalled() && !responses_.empty()) || hasOutcome() ||
           (eventCallback_.isInstalled() && !events_.empty());
}

void Initiator::deliver(Lock& lock) {
    if (responseCallback_.isInstalled() && !responses_.empty()) {
        Message::Fields fields = take(responses_);
        dispatcher().invoke(lock, responseCallback_, [&fields](auto* callback, void* context) {
            callback(&fields[0], &fields[1], &fields[2], &fields[3], context);
        });
    } else if (hasOutcome()) {
        const PendingRequests::Outcome outcome = pending_.takeOutcome();
        dispatcher().invoke(lock, outcomeCallback_, [&outcome](auto* callback, void* context) {
            callback(outcome.uuid.c_str(), outcome.status, context);
        });
    } else {
        Message::Fields fields = take(events_);
        dispatcher().invoke(lock, eventCallback_, [&fields](auto* callback, void* context) {
            callback(&fields[0], &fields[1], &fields[3], context);  // an event has no uuid
        });
    }
}

}  // namespace kavri::core
