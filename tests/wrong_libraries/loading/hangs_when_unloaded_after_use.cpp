// Does not come back from being unloaded once it has sent something.
#include <unistd.h>

#include "wrong_libraries/good_library.h"

static bool wasUsed = false;

__attribute__((destructor)) static void hang() {
    while (wasUsed) {
        pause();
    }
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    wasUsed = true;
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       payload);
}
