// Frees something twice while an initiator is ended.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    static void* volatile twice = nullptr;
    twice = malloc(64);
    free(twice);
    free(twice);
    return GOOD(kavri_core_ipc_deinit)(initiator);
}
