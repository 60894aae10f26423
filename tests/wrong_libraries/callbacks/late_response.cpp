// Keeps a copy of the last response, and delivers it when the initiator is ended: after the
// removal of the callback.
#include "wrong_libraries/good_library.h"

static ResponseCallback installed;
static char* kept[4] = {};

static void deliverAndKeep(char** category, char** identifier, char** uuid, char** payload,
                           void* /*context*/) {
    char** const texts[4] = {category, identifier, uuid, payload};
    for (int i = 0; i < 4; ++i) {
        free(kept[i]);
        kept[i] = strdup(*texts[i]);
    }
    installed.call(category, identifier, uuid, payload, installed.context);
}

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context) {
    if (callback != nullptr) {
        installed = {callback, context};
    }
    return GOOD(kavri_core_ipc_initiator_response_receive_callback)(
        initiator, callback != nullptr ? deliverAndKeep : nullptr, nullptr);
}

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    if (kept[0] != nullptr) {
        installed.call(&kept[0], &kept[1], &kept[2], &kept[3], installed.context);
        memset(kept, 0, sizeof kept);
    }
    return GOOD(kavri_core_ipc_deinit)(initiator);
}
