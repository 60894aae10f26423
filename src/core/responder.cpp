// The responder; see responder.h.
#include "core/responder.h"

#include <functional>
#include <optional>

namespace kavri::core {

using wire::Field;
using wire::Frame;
using wire::FrameType;

kavri_core_status Responder::receive(int timeoutMs, kavri_core_ipc_request& request,
                                     Message::Fields& fields) {
    Lock lock = acquire();
    const auto isReady = [this] { return callback_.isInstalled() || !requests_.empty(); };
    const auto outcome = [&]() -> std::optional<kavri_core_status> {
        if (callback_.isInstalled()) {
            return KAVRI_CORE_STATUS_IPC_FAILED;
        }
        if (requests_.empty()) {
            return std::nullopt;
        }
        request = nameOf(requests_.front());
        fields = take(requests_);
        return KAVRI_CORE_STATUS_NO_ERROR;
    };
    return receiveNext(lock, timeoutMs, isReady, outcome, std::identity{});
}

kavri_core_status Responder::setRequestCallback(kavri_core_ipc_responder_request_callback callback,
                                                void* context) {
    Lock lock = acquire();
    install(lock, callback_, callback, context);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status Responder::finish(kavri_core_ipc_request request, Frame frame) {
    Lock lock = acquire();
    frame.token = request.token;
    CallDeadline deadline(sendTimeout());
    return sendFrameOver(lock, request.connection, frame, deadline);
}

kavri_core_status Responder::publish(Frame event) {
    if (event[Field::category] != servedCategory_) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    Lock lock = acquire();
    event.type = FrameType::publish;
    CallDeadline deadline(sendTimeout());
    return sendFrame(lock, event, deadline);
}

void Responder::frameReceived(const Frame& frame, Text& payload) {
    if (frame.type == FrameType::request) {
        requests_.emplace_back(frame, payload);
        queued(requests_.back());
    }
}

// The broker has reported these requests to their senders as lost.
void Responder::handleLoss() {
    for (const Message& request : requests_) {
        dequeued(request);
    }
    requests_.clear();
}

void Responder::deliver(Lock& lock) {
    const kavri_core_ipc_request request = nameOf(requests_.front());
    Message::Fields fields = take(requests_);
    dispatcher().invoke(lock, callback_, [&](auto* callback, void* context) {
        callback(request, &fields[0], &fields[1], &fields[2], &fields[3], context);
    });
}

}  // namespace kavri::core
