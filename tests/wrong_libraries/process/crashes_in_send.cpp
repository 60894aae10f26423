// Reads from an address that is none while it sends.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* /*initiator*/,
                                                        const char* /*category*/,
                                                        const char* /*identifier*/,
                                                        const char* /*uuid*/,
                                                        const char* /*payload*/) {
    volatile const int* const nowhere = nullptr;
    return static_cast<kavri_core_status>(*nowhere);
}
