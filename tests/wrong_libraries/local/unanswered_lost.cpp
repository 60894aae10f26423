// Loses the requests whose answer nobody waits for: of two sends of a case the second.
#include "wrong_libraries/good_library.h"

static bool isLost = false;

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    if (isLost) {
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    isLost = true;
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       payload);
}
