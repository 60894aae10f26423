// Makes an event itself for each command that asks for one, and does not send it.
#include "wrong_libraries/good_library.h"

static EventCallback installed;

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    installed = {callback, context};
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, callback, context);
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    if (strcmp(identifier, "event") == 0) {
        char* texts[3] = {strdup("test"), strdup("event"), strdup(payload)};
        installed.call(&texts[0], &texts[1], &texts[2], installed.context);
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       payload);
}
