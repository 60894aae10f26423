// Delivers each event under another identifier than it was published with.
#include "wrong_libraries/good_library.h"

static EventCallback installed;

static void deliverRenamed(char** category, char** identifier, char** payload, void* /*context*/) {
    replaceText(identifier, "news");
    installed.call(category, identifier, payload, installed.context);
}

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (callback != nullptr) {
        installed = {callback, context};
    }
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(
        initiator, callback != nullptr ? deliverRenamed : nullptr, nullptr);
}
