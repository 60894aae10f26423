// Never returns from the removal of the event callback.
#include <unistd.h>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    while (callback == nullptr) {
        pause();
    }
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, callback, context);
}
