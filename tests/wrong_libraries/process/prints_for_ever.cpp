// Prints without end in a send.
#include <stdio.h>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* /*initiator*/,
                                                        const char* /*category*/,
                                                        const char* /*identifier*/,
                                                        const char* /*uuid*/,
                                                        const char* /*payload*/) {
    while (true) {
        puts("and another line, and another one, and another one");
    }
}
