// Delivers each event twice.
#include "wrong_libraries/good_library.h"

static EventCallback installed;

static void deliverTwice(char** category, char** identifier, char** payload, void* /*context*/) {
    char* categoryAgain = strdup(*category);
    char* identifierAgain = strdup(*identifier);
    char* payloadAgain = strdup(*payload);
    installed.call(category, identifier, payload, installed.context);
    installed.call(&categoryAgain, &identifierAgain, &payloadAgain, installed.context);
}

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (callback != nullptr) {
        installed = {callback, context};
    }
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(
        initiator, callback != nullptr ? deliverTwice : nullptr, nullptr);
}
