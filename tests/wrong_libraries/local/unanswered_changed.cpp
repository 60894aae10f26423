// Sends a command without an answer with another payload.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    const bool isChanged = strcmp(identifier, "inc_repeat_count") == 0;
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       isChanged ? "" : payload);
}
