// Answers an echo itself, and sends every other request.
#include "wrong_libraries/good_library.h"

// Of the echo that was sent last; null: none, or received.
static char* echoedUuid = nullptr;
static char* echoedPayload = nullptr;

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    if (strcmp(identifier, "echo") == 0) {
        echoedUuid = strdup(uuid);
        echoedPayload = strdup(payload);
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       payload);
}

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    if (echoedUuid != nullptr) {
        *category = strdup("test");
        *identifier = strdup("echo");
        *uuid = echoedUuid;
        *payload = echoedPayload;
        echoedUuid = nullptr;
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    return GOOD(kavri_core_ipc_initiator_response_receive)(initiator, timeout, category, identifier,
                                                           uuid, payload);
}
