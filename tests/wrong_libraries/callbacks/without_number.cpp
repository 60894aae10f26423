// Calls the event callback a thousand times when it is removed.
#include "wrong_libraries/good_library.h"

static EventCallback installed;

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    const kavri_core_status status =
        GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, callback, context);
    for (int i = 0; callback == nullptr && i < 1000; ++i) {
        char* category = strdup("test");
        char* identifier = strdup("event");
        char* payload = strdup("");
        installed.call(&category, &identifier, &payload, installed.context);
    }
    installed = {callback, context};
    return status;
}
