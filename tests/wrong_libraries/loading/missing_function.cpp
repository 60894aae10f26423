// Lacks one of the twelve functions.
#include "wrong_libraries/good_library.h"

// Hidden: defined, and exported to nobody.
__attribute__((visibility("hidden"))) kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(
    kavri_core_ipc_initiator* /*initiator*/, const char* /*category*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
