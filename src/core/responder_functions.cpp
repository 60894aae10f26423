// The C functions of the responder: they check their arguments and call the responder's class.
#include "core/responder.h"
#include "core/shim.h"
#include "wire/limits.h"

struct kavri_core_ipc_responder {
    std::shared_ptr<kavri::core::Responder> responder;
};

using kavri::core::anyNull;
using kavri::core::guarded;
using kavri::wire::Frame;
using kavri::wire::FrameType;

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_init(kavri_core_logging_cookie cookie,
                                                             void* options, const char* category,
                                                             kavri_core_ipc_responder** responder) {
    if (responder == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    *responder = nullptr;
    if (anyNull(category) || *category == '\0') {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded([&] {
        kavri::core::Settings settings;
        settings.role = "responder";
        settings.servedCategory = category;
        if (settings.servedCategory.size() > kavri::wire::fieldLimitBytes) {
            return KAVRI_CORE_STATUS_IPC_TOO_LARGE;
        }
        kavri_core_status status = kavri::core::readSettings(cookie, options, settings);
        if (status == KAVRI_CORE_STATUS_NO_ERROR) {
            // Allocated before the start: once its thread runs, there must be a handle to end it.
            auto made = std::make_unique<kavri_core_ipc_responder>();
            made->responder = std::make_shared<kavri::core::Responder>(std::move(settings));
            status = made->responder->start();
            if (status == KAVRI_CORE_STATUS_NO_ERROR) {
                *responder = made.release();
            }
        }
        return status;
    });
}

KAVRI_EXPORT kavri_core_status
kavri_core_ipc_responder_deinit(kavri_core_ipc_responder* responder) {
    if (responder == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return kavri::core::endHandle(responder, responder->responder);
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_request_receive(
    kavri_core_ipc_responder* responder, int timeout, kavri_core_ipc_request* request,
    char** targetCategory, char** targetIdentifier, char** uuid, char** payload) {
    if (anyNull(responder) || anyNull(request) ||
        anyNull(targetCategory, targetIdentifier, uuid, payload) ||
        !kavri::core::isTimeout(timeout)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->responder, [&] {
        kavri::core::Message::Fields fields{};
        const kavri_core_status status = responder->responder->receive(timeout, *request, fields);
        if (status == KAVRI_CORE_STATUS_NO_ERROR) {
            *targetCategory = fields[0];
            *targetIdentifier = fields[1];
            *uuid = fields[2];
            *payload = fields[3];
        }
        return status;
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_request_receive_callback(
    kavri_core_ipc_responder* responder, kavri_core_ipc_responder_request_callback callback,
    void* context) {
    if (responder == nullptr || (callback == nullptr && context != nullptr)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->responder,
                   [&] { return responder->responder->setRequestCallback(callback, context); });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_response_send(
    kavri_core_ipc_responder* responder, kavri_core_ipc_request request, const char* targetCategory,
    const char* targetIdentifier, const char* uuid, const char* payload) {
    if (anyNull(responder) || anyNull(targetCategory, targetIdentifier, uuid)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->responder, [&] {
        Frame response;
        response.type = FrameType::response;
        response.fields = {targetCategory, targetIdentifier, uuid,
                           payload != nullptr ? std::string_view(payload) : std::string_view()};
        return responder->responder->finish(request, response);
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_request_end(
    kavri_core_ipc_responder* responder, kavri_core_ipc_request request) {
    if (responder == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->responder, [&] {
        Frame completion;
        completion.type = FrameType::completion;
        return responder->responder->finish(request, completion);
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_event_publish(
    kavri_core_ipc_responder* responder, const char* targetCategory, const char* targetIdentifier,
    const char* payload) {
    if (anyNull(responder) || anyNull(targetCategory, targetIdentifier, payload)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->responder, [&] {
        Frame event;
        event.fields = {targetCategory, targetIdentifier, std::string_view(), payload};
        return responder->responder->publish(event);
    });
}
