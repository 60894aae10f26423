// The C functions of the responder: they check their arguments and call the responder's class.
#include "core/responder.h"
#include "core/shim.h"
#include "wire/limits.h"

struct kavri_core_ipc_responder {
    std::shared_ptr<kavri::core::Responder> endpoint;
};

using kavri::core::anyNull;
using kavri::core::guarded;
using kavri::core::isInstallable;
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
        return kavri::core::makeHandle(cookie, options, std::move(settings), *responder);
    });
}

KAVRI_EXPORT kavri_core_status
kavri_core_ipc_responder_deinit(kavri_core_ipc_responder* responder) {
    return kavri::core::endHandle(responder);
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_request_receive(
    kavri_core_ipc_responder* responder, int timeout, kavri_core_ipc_request* request,
    char** targetCategory, char** targetIdentifier, char** uuid, char** payload) {
    if (anyNull(responder) || anyNull(request) ||
        anyNull(targetCategory, targetIdentifier, uuid, payload) ||
        !kavri::core::isTimeout(timeout)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->endpoint, [&] {
        kavri::core::Message::Fields fields{};
        const kavri_core_status status = responder->endpoint->receive(timeout, *request, fields);
        return kavri::core::store(status, fields,
                                  {targetCategory, targetIdentifier, uuid, payload});
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_request_receive_callback(
    kavri_core_ipc_responder* responder, kavri_core_ipc_responder_request_callback callback,
    void* context) {
    if (!isInstallable(responder, callback, context)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->endpoint,
                   [&] { return responder->endpoint->setRequestCallback(callback, context); });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_response_send(
    kavri_core_ipc_responder* responder, kavri_core_ipc_request request, const char* targetCategory,
    const char* targetIdentifier, const char* uuid, const char* payload) {
    if (anyNull(responder) || anyNull(targetCategory, targetIdentifier, uuid)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->endpoint, [&] {
        Frame response;
        response.type = FrameType::response;
        response.fields = {targetCategory, targetIdentifier, uuid,
                           payload != nullptr ? std::string_view(payload) : std::string_view()};
        return responder->endpoint->finish(request, response);
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_request_end(
    kavri_core_ipc_responder* responder, kavri_core_ipc_request request) {
    if (responder == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->endpoint, [&] {
        Frame completion;
        completion.type = FrameType::completion;
        return responder->endpoint->finish(request, completion);
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_ipc_responder_event_publish(
    kavri_core_ipc_responder* responder, const char* targetCategory, const char* targetIdentifier,
    const char* payload) {
    if (anyNull(responder) || anyNull(targetCategory, targetIdentifier, payload)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded(responder->endpoint, [&] {
        Frame event;
        event.fields = {targetCategory, targetIdentifier, std::string_view(), payload};
        return responder->endpoint->publish(event);
    });
}
