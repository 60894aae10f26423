// Receives although a callback is installed, and so waits for ever.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* /*initiator*/,
    kavri_core_ipc_initiator_response_callback /*callback*/, void* /*context*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
