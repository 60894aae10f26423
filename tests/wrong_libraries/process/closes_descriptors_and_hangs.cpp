// Closes descriptors that are not its own, and then does not come back.
#include <unistd.h>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* /*initiator*/,
                                                        const char* /*category*/,
                                                        const char* /*identifier*/,
                                                        const char* /*uuid*/,
                                                        const char* /*payload*/) {
    close_range(3, ~0U, 0);
    while (true) {
        pause();
    }
}
