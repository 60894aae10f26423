// Delivers events on a thread that any signal can interrupt.
#include <pthread.h>
#include <signal.h>

#include "wrong_libraries/good_library.h"

namespace {

EventCallback installed;

void arrived(char** category, char** identifier, char** payload, void* /*context*/) {
    sigset_t none;
    sigset_t before;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, &before);
    installed.call(category, identifier, payload, installed.context);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (callback == nullptr) {
        return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, nullptr, nullptr);
    }
    installed = {callback, context};
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, arrived, nullptr);
}
