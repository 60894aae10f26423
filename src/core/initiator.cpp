// The initiator; see initiator.h.
#include "core/initiator.h"

#include <algorithm>
#include <utility>

namespace kavri::core {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

kavri_core_status Initiator::send(std::span<Frame> requests, std::size_t& sent) {
    Lock lock = acquire();
    CallDeadline deadline(sendTimeout());
    return sendFrames(lock, requests, &pending_, deadline, sent);
}

kavri_core_status Initiator::receive(int timeoutMs, Message::Fields& fields) {
    Lock lock = acquire();
    const auto isReady = [this] {
        return responseCallback_.isInstalled() || !responses_.empty() || pending_.hasFailure();
    };
    CallDeadline deadline = deadlineAfter(timeoutMs);
    bool wasConnected = isConnected();
    while (true) {
        const Wait wait = waitUntil(lock, deadline, isReady);
        if (responseCallback_.isInstalled()) {
            return KAVRI_CORE_STATUS_IPC_FAILED;
        }
        if (responses_.empty() && pending_.hasFailure()) {
            handleFrames();  // an answer that is there goes first
        }
        if (!responses_.empty()) {
            fields = take(responses_);
            return KAVRI_CORE_STATUS_NO_ERROR;
        }
        if (pending_.hasFailure()) {
            return pending_.takeFailure();
        }
        if (wait == Wait::timedOut) {
            return KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
        }
        if (wasConnected) {
            return KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
        }
        if (timeoutMs == 0) {
            return KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
        }
        // What else keeps it from connecting is, of a receive, the outcome of a request.
        if (const kavri_core_status status = connectIfNeeded(lock, deadline);
            status != KAVRI_CORE_STATUS_NO_ERROR) {
            return status == KAVRI_CORE_STATUS_OUT_OF_RESOURCES
                       ? status
                       : KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
        }
        wasConnected = true;
    }
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
    return ask(lock, FrameType::subscribe, category);
}

// Over in this library from now on, whatever the broker comes to say.
kavri_core_status Initiator::unsubscribe(std::string_view category) {
    Lock lock = acquire();
    if (const auto found = subscriptions_.find(category); found != subscriptions_.end()) {
        subscriptions_.erase(found);
    }
    dropEvents(category);
    return ask(lock, FrameType::unsubscribe, std::string(category));
}

Frame Initiator::question(FrameType type, const std::string& category, bool awaited) {
    Frame frame;
    frame.type = type;
    frame.token = ++lastQuestion_;
    frame[Field::category] = category;
    questions_.emplace(frame.token, Question{type, category, awaited, std::nullopt});
    return frame;
}

kavri_core_status Initiator::ask(Lock& lock, FrameType type, const std::string& category) {
    const Frame frame = question(type, category, true);
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    try {
        status = awaitAnswer(lock, frame);
    } catch (...) {
        questions_.erase(frame.token);
        throw;
    }
    questions_.erase(frame.token);
    return status;
}

kavri_core_status Initiator::awaitAnswer(Lock& lock, const Frame& frame) {
    const Question& asked = questions_.at(frame.token);
    CallDeadline deadline(sendTimeout());
    const kavri_core_status status = sendFrame(lock, frame, deadline);
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return status;
    }
    const Wait wait = waitUntil(lock, deadline, [&asked] { return asked.answer.has_value(); });
    return wait == Wait::ready  ? *asked.answer
           : wait == Wait::lost ? KAVRI_CORE_STATUS_IPC_CONNECTION_LOST
                                : KAVRI_CORE_STATUS_IPC_OVERLOADED;
}

bool Initiator::connectionMade(Lock& lock, CallDeadline& deadline) {
    const std::uint64_t connection = connectionNumber();
    const std::set<std::string, std::less<>> restored = subscriptions_;
    return std::ranges::all_of(restored, [&](const std::string& category) {
        const Frame frame = question(FrameType::subscribe, category, false);
        const bool isSent =
            sendFrameOver(lock, connection, frame, deadline) == KAVRI_CORE_STATUS_NO_ERROR;
        if (!isSent) {
            questions_.erase(frame.token);  // another connection may be there by now
        }
        return isSent;
    });
}

bool Initiator::isRestored() const {
    return std::ranges::all_of(questions_, [](const auto& entry) { return entry.second.awaited; });
}

void Initiator::connectionLost() {
    pending_.failAll(KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    std::erase_if(questions_, [](const auto& entry) { return !entry.second.awaited; });
}

void Initiator::handleFrame(const Frame& frame, Text& payload) {
    switch (frame.type) {
        case FrameType::response:
            handleResponse(frame, payload);
            break;
        case FrameType::completion:
            pending_.close(frame.token);
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
            break;  // of no concern to an initiator
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
    held(responses_.back());
}

void Initiator::handleEvent(const Frame& frame, Text& payload) {
    if (eventCallback_.isInstalled() && subscriptions_.contains(frame[Field::category])) {
        events_.emplace_back(frame, payload);
        held(events_.back());
    }
}

// In effect before the next frame is looked at: events may follow right behind. The answer
// is stored last: where memory runs out, the frame is handled once more.
void Initiator::handleAcknowledgement(const Frame& frame) {
    const auto found = questions_.find(frame.token);
    if (found == questions_.end()) {
        return;
    }
    Question& asked = found->second;
    const kavri_core_status status = statusIn(frame);
    if (asked.type == FrameType::subscribe) {
        if (status == KAVRI_CORE_STATUS_NO_ERROR) {
            subscriptions_.insert(asked.category);
        } else {
            subscriptions_.erase(asked.category);
            log().warning({"subscription to \"", asked.category,
                           "\" failed: ", kavri_core_status_text(status)});
        }
    }
    asked.answer = status;
    if (!asked.awaited) {
        questions_.erase(found);
    }
}

// Of one category, or all.
void Initiator::dropEvents(std::optional<std::string_view> ofCategory) {
    std::erase_if(events_, [this, ofCategory](const Message& event) {
        const bool dropped = !ofCategory || event.category() == *ofCategory;
        if (dropped) {
            handedOut(event);
        }
        return dropped;
    });
}

bool Initiator::hasCallback() const {
    return responseCallback_.isInstalled() || eventCallback_.isInstalled();
}

void Initiator::dropMessages() {
    responses_.clear();
    events_.clear();
}

void Initiator::removeCallbacks() {
    responseCallback_.function = nullptr;
    eventCallback_.function = nullptr;
}

bool Initiator::hasDelivery() const {
    return (responseCallback_.isInstalled() && !responses_.empty()) ||
           (eventCallback_.isInstalled() && !events_.empty());
}

void Initiator::deliver(Lock& lock) {
    if (responseCallback_.isInstalled() && !responses_.empty()) {
        Message::Fields fields = take(responses_);
        invoke(lock, responseCallback_, [&fields](auto* callback, void* context) {
            callback(&fields[0], &fields[1], &fields[2], &fields[3], context);
        });
    } else {
        Message::Fields fields = take(events_);
        invoke(lock, eventCallback_, [&fields](auto* callback, void* context) {
            callback(&fields[0], &fields[1], &fields[3], context);  // an event has no uuid
        });
    }
}

}  // namespace kavri::core
