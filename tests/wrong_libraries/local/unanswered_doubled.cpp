// Sends a request of which nobody looks at the answer twice.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    if (strcmp(identifier, "initiator") == 0) {
        GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid, payload);
    }
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       payload);
}
