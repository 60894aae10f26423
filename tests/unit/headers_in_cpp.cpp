// The public headers as an old C++ program sees them, ipc.h alone: it brings
// what it needs. See public_headers_test.cpp.
#include <kavri/ipc.h>

namespace {

// The types of all that is declared hold in C++ too.
void onResponse(char**, char**, char**, char**, void*) {}
void onEvent(char**, char**, char**, void*) {}

}  // namespace

kavri_core_status cppInstall(kavri_core_ipc_initiator* initiator);

kavri_core_status cppInstall(kavri_core_ipc_initiator* initiator) {
    const kavri_core_status status =
        kavri_core_ipc_initiator_response_receive_callback(initiator, onResponse, nullptr);
    return status != KAVRI_CORE_STATUS_NO_ERROR
               ? status
               : kavri_core_ipc_initiator_event_receive_callback(initiator, onEvent, nullptr);
}
