/* The public headers as a C11 program sees them; see public_headers_test.cpp. */
#include <kavri/core.h>
/* Behind core.h, and twice: neither may matter. */
#include <kavri/ipc.h>

#include "headers_in_c.h"

size_t cOptionsBytes(void) {
    return sizeof(kavri_core_ipc_options);
}

size_t cRequestBytes(void) {
    return sizeof(kavri_core_ipc_request);
}

size_t cStatusBytes(void) {
    return sizeof(kavri_core_status);
}

kavri_core_status cSend(kavri_core_ipc_initiator* initiator) {
    return kavri_core_ipc_initiator_command_send(initiator, "test", "echo", "u", "p");
}
