// Does not subscribe, and says that it has.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator* /*initiator*/,
                                                           const char* /*category*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
