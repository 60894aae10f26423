// Makes a connection for each request.
#include "wrong_libraries/good_library.h"

// For the request sent last; the module ends the one that it has itself.
static kavri_core_ipc_initiator* latest = nullptr;

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* /*initiator*/,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    if (latest != nullptr) {
        GOOD(kavri_core_ipc_deinit)(latest);
    }
    GOOD(kavri_core_ipc_initiator_init)(nullptr, nullptr, &latest);
    return GOOD(kavri_core_ipc_initiator_command_send)(latest, category, identifier, uuid, payload);
}

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* /*initiator*/,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    return GOOD(kavri_core_ipc_initiator_response_receive)(latest, timeout, category, identifier,
                                                           uuid, payload);
}
