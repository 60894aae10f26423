// Prints what a terminal would obey, and bytes that are no text.
#include <stdio.h>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    fputs("\x1b[2J\x1b]0;title\a \xff\xc2\x9b\n", stderr);
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       payload);
}
