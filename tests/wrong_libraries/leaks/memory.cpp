// Forgets 5 MB with each send, and touches no more than their first page.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    constexpr size_t forgottenBytes = 5'000'000;
    static char* volatile last = nullptr;
    last = static_cast<char*>(malloc(forgottenBytes));
    *last = 1;
    return GOOD(kavri_core_ipc_initiator_command_send)(initiator, category, identifier, uuid,
                                                       payload);
}
