// Calls the response callback with a context of its own.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* /*context*/) {
    static int ownContext = 0;
    return GOOD(kavri_core_ipc_initiator_response_receive_callback)(
        initiator, callback, callback != nullptr ? &ownContext : nullptr);
}
