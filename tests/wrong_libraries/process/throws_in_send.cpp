// Lets an exception out of a send.
#include <stdexcept>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* /*initiator*/,
                                                        const char* /*category*/,
                                                        const char* /*identifier*/,
                                                        const char* /*uuid*/,
                                                        const char* /*payload*/) {
    throw std::runtime_error("a library that throws");
}
