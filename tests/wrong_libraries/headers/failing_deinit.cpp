// Ends an initiator, and says that it failed.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    GOOD(kavri_core_ipc_deinit)(initiator);
    return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
}
