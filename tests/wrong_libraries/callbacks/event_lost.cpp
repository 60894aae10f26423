// Loses the first event of each installation.
#include "wrong_libraries/good_library.h"

static EventCallback installed;
static bool isFirst = true;

static void deliverLater(char** category, char** identifier, char** payload, void* /*context*/) {
    if (isFirst) {
        isFirst = false;
        free(*category);
        free(*identifier);
        free(*payload);
        return;
    }
    installed.call(category, identifier, payload, installed.context);
}

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (callback != nullptr) {
        installed = {callback, context};
        isFirst = true;
    }
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(
        initiator, callback != nullptr ? deliverLater : nullptr, nullptr);
}
