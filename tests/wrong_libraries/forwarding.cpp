// The twelve functions, forwarded to the good library. Each is weak: the definition of a
// wrong library takes its place.
//
// The good library is loaded beside the wrong one, from the place where it was built.
#include <dlfcn.h>
#include <stdio.h>

#include "wrong_libraries/good_library.h"

void* goodFunction(const char* name) {
    static void* const library = dlopen(KAVRI_GOOD_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    void* const function = library != nullptr ? dlsym(library, name) : nullptr;
    if (function == nullptr) {
        fprintf(stderr, "no good library: %s\n", dlerror());
        abort();
    }
    return function;
}

#define FORWARD(function, parameters, arguments)                  \
    __attribute__((weak)) kavri_core_status function parameters { \
        return GOOD(function) arguments;                          \
    }

FORWARD(kavri_core_init, (), ())
FORWARD(kavri_core_deinit, (), ())
FORWARD(kavri_core_logging_init, (const char* name, kavri_core_logging_cookie* cookie),
        (name, cookie))
FORWARD(kavri_core_logging_deinit, (kavri_core_logging_cookie cookie), (cookie))
FORWARD(kavri_core_ipc_initiator_init,
        (kavri_core_logging_cookie cookie, void* options, kavri_core_ipc_initiator** initiator),
        (cookie, options, initiator))
FORWARD(kavri_core_ipc_deinit, (kavri_core_ipc_initiator * initiator), (initiator))
FORWARD(kavri_core_ipc_initiator_command_send,
        (kavri_core_ipc_initiator * initiator, const char* category, const char* identifier,
         const char* uuid, const char* payload),
        (initiator, category, identifier, uuid, payload))
FORWARD(kavri_core_ipc_initiator_response_receive,
        (kavri_core_ipc_initiator * initiator, int timeout, char** category, char** identifier,
         char** uuid, char** payload),
        (initiator, timeout, category, identifier, uuid, payload))
FORWARD(kavri_core_ipc_initiator_response_receive_callback,
        (kavri_core_ipc_initiator * initiator, kavri_core_ipc_initiator_response_callback callback,
         void* context),
        (initiator, callback, context))
FORWARD(kavri_core_ipc_initiator_event_subscribe,
        (kavri_core_ipc_initiator * initiator, const char* category), (initiator, category))
FORWARD(kavri_core_ipc_initiator_event_unsubscribe,
        (kavri_core_ipc_initiator * initiator, const char* category), (initiator, category))
FORWARD(kavri_core_ipc_initiator_event_receive_callback,
        (kavri_core_ipc_initiator * initiator, kavri_core_ipc_initiator_event_callback callback,
         void* context),
        (initiator, callback, context))
