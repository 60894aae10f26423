// Sends the payload in capitals.
#include <ctype.h>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    char capitals[64] = {};
    for (size_t i = 0; payload[i] != 0 && i + 1 < sizeof capitals; ++i) {
        capitals[i] = static_cast<char>(toupper(payload[i]));
    }
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       capitals);
}
