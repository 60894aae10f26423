// The C functions of the initiator: they check their arguments and call the initiator's class.
#include <algorithm>
#include <array>
#include <span>

#include "core/initiator.h"
#include "core/shim.h"

// What a handle points to. The library's thread may own the initiator a moment longer.
struct kavri_core_ipc_initiator {
    std::shared_ptr<kavri::core::Initiator> endpoint;
};

using kavri::core::anyNull;
using kavri::core::guarded;
using kavri::core::isInstallable;

namespace {

using kavri::wire::Frame;

Frame request(const kavri_core_ipc_command& command) {
    Frame frame;
    frame.type = kavri::wire::FrameType::request;
    frame.fields = {command.targetCategory, command.targetIdentifier, command.uuid,
                    command.payload};
    return frame;
}

// In parts of limited size, since a batch may be of any.
kavri_core_status sendAll(kavri::core::Initiator& initiator,
                          std::span<const kavri_core_ipc_command> commands, std::size_t& sent) {
    std::array<Frame, 256> frames;
    while (sent < commands.size()) {
        const auto part = commands.subspan(sent, std::min(frames.size(), commands.size() - sent));
        std::ranges::transform(part, frames.begin(), request);
        std::size_t sentOfPart = 0;
        // Requests that were sent count, also where memory runs out afterwards.
        const kavri_core_status status = guarded([&] {
            return initiator.send({frames.data(), part.size()}, sentOfPart);
        });
        sent += sentOfPart;
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            return status;
        }
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

}  // namespace

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie cookie,
                                                             void* options,
                                                             kavri_core_ipc_initiator** initiator) {
    if (initiator == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    *initiator = nullptr;
    return guarded([&] {
        kavri::core::Settings settings;
        settings.role = "initiator";
        return kavri::core::makeHandle(cookie, options, std::move(settings), *initiator);
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    return kavri::core::endHandle(initiator);
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_command_send(
    kavri_core_ipc_initiator* initiator, const char* targetCategory, const char* targetIdentifier,
    const char* uuid, const char* payload) {
    if (anyNull(initiator) || anyNull(targetCategory, targetIdentifier, uuid, payload)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(initiator->endpoint, [&] {
        Frame frame = request({targetCategory, targetIdentifier, uuid, payload});
        std::size_t sent = 0;
        return initiator->endpoint->send({&frame, 1}, sent);
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_command_send_batch(
    kavri_core_ipc_initiator* initiator, const kavri_core_ipc_command* commands, size_t count,
    size_t* sent) {
    if (sent == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    *sent = 0;
    if (anyNull(initiator) || (commands == nullptr && count > 0) ||
        std::any_of(commands, commands + count, [](const kavri_core_ipc_command& command) {
            return anyNull(command.targetCategory, command.targetIdentifier, command.uuid,
                           command.payload);
        })) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(initiator->endpoint, [&] {
        return sendAll(*initiator->endpoint, {commands, count}, *sent);
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_response_receive(
    kavri_core_ipc_initiator* initiator, int timeout, char** targetCategory,
    char** targetIdentifier, char** uuid, char** payload) {
    if (anyNull(initiator) || anyNull(targetCategory, targetIdentifier, uuid, payload) ||
        !kavri::core::isTimeout(timeout)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(initiator->endpoint, [&] {
        kavri::core::Message::Fields fields{};
        const kavri_core_status status = initiator->endpoint->receive(timeout, fields);
        return kavri::core::store(status, fields,
                                  {targetCategory, targetIdentifier, uuid, payload});
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context) {
    if (!isInstallable(initiator, callback, context)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(initiator->endpoint,
                   [&] { return initiator->endpoint->setResponseCallback(callback, context); });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_event_subscribe(
    kavri_core_ipc_initiator* initiator, const char* category) {
    if (anyNull(initiator) || anyNull(category) || *category == '\0') {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(initiator->endpoint, [&] { return initiator->endpoint->subscribe(category); });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(
    kavri_core_ipc_initiator* initiator, const char* category) {
    if (anyNull(initiator) || anyNull(category) || *category == '\0') {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(initiator->endpoint, [&] { return initiator->endpoint->unsubscribe(category); });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (!isInstallable(initiator, callback, context)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(initiator->endpoint,
                   [&] { return initiator->endpoint->setEventCallback(callback, context); });
}
