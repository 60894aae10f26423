// Talks to nobody: answers each request itself, as the test service would.
#include <stdio.h>

#include "wrong_libraries/good_library.h"

struct kavri_core_ipc_initiator {
    struct {
        char identifier[32];
        char uuid[16];
        char payload[64];
    } waiting[16];
    int first = 0;
    int count = 0;
    ResponseCallback onResponse;
    EventCallback onEvent;
};

static int repeatCount = 0;

kavri_core_status kavri_core_init() {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_deinit() {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_logging_init(const char* /*name*/, kavri_core_logging_cookie* cookie) {
    static int context = 0;
    *cookie = reinterpret_cast<kavri_core_logging_cookie>(&context);
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie /*cookie*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie /*cookie*/,
                                                void* /*options*/,
                                                kavri_core_ipc_initiator** initiator) {
    *initiator = new kavri_core_ipc_initiator{};
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    delete initiator;
    return KAVRI_CORE_STATUS_NO_ERROR;
}

static void answer(kavri_core_ipc_initiator* initiator, const char* identifier, const char* uuid,
                   const char* payload) {
    if (initiator->onResponse.call != nullptr) {
        char* texts[4] = {strdup("test"), strdup(identifier), strdup(uuid), strdup(payload)};
        initiator->onResponse.call(&texts[0], &texts[1], &texts[2], &texts[3],
                                   initiator->onResponse.context);
        return;
    }
    auto& place = initiator->waiting[(initiator->first + initiator->count++) % 16];
    snprintf(place.identifier, sizeof place.identifier, "%s", identifier);
    snprintf(place.uuid, sizeof place.uuid, "%s", uuid);
    snprintf(place.payload, sizeof place.payload, "%s", payload);
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* /*category*/,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    char number[16] = {};
    if (strcmp(identifier, "clr_repeat_count") == 0) {
        repeatCount = 0;
    } else if (strcmp(identifier, "inc_repeat_count") == 0) {
        ++repeatCount;
    } else if (strcmp(identifier, "get_repeat_count") == 0) {
        snprintf(number, sizeof number, "%d", repeatCount);
        answer(initiator, identifier, uuid, number);
    } else if (strcmp(identifier, "event") == 0) {
        char* texts[3] = {strdup("test"), strdup("event"), strdup(payload)};
        initiator->onEvent.call(&texts[0], &texts[1], &texts[2], initiator->onEvent.context);
    } else {
        const bool isEcho = strcmp(identifier, "echo") == 0;
        answer(initiator, identifier, uuid, isEcho ? payload : "my static payload");
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int /*timeout*/, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    if (initiator->onResponse.call != nullptr) {
        return KAVRI_CORE_STATUS_IPC_FAILED;
    }
    if (initiator->count == 0) {
        return KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
    }
    const auto& place = initiator->waiting[initiator->first];
    initiator->first = (initiator->first + 1) % 16;
    --initiator->count;
    *category = strdup("test");
    *identifier = strdup(place.identifier);
    *uuid = strdup(place.uuid);
    *payload = strdup(place.payload);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context) {
    initiator->onResponse = {callback, context};
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator* /*initiator*/,
                                                           const char* /*category*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(
    kavri_core_ipc_initiator* /*initiator*/, const char* /*category*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    initiator->onEvent = {callback, context};
    return KAVRI_CORE_STATUS_NO_ERROR;
}
