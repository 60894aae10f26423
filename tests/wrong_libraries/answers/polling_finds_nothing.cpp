// A receive that does not wait never finds a response.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    if (timeout == 0) {
        return KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
    }
    return GOOD(kavri_core_ipc_initiator_response_receive)(initiator, timeout, category, identifier,
                                                           uuid, payload);
}
