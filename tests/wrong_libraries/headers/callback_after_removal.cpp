// Delivers one event more, on a thread of its own, once the callback is removed.
#include <thread>

#include "wrong_libraries/good_library.h"

namespace {

EventCallback installed;

void deliverOnceMore() {
    char* category = strdup("test");
    char* identifier = strdup("event");
    char* payload = strdup("");
    installed.call(&category, &identifier, &payload, installed.context);
}

}  // namespace

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (callback != nullptr) {
        installed = {callback, context};
    }
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, callback, context);
}

// Between the removal and this the case looks at the number of events.
kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(kavri_core_ipc_initiator* initiator,
                                                             const char* category) {
    std::thread(deliverOnceMore).join();
    return GOOD(kavri_core_ipc_initiator_event_unsubscribe)(initiator, category);
}
