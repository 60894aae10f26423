// Gives itself up while it receives.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* /*initiator*/,
                                                            int /*timeout*/, char** /*category*/,
                                                            char** /*identifier*/, char** /*uuid*/,
                                                            char** /*payload*/) {
    abort();
}
