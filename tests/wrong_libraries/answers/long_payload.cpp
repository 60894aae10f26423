// Hands out payloads of three megabytes.
#include <string>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    const kavri_core_status status = GOOD(kavri_core_ipc_initiator_response_receive)(
        initiator, timeout, category, identifier, uuid, payload);
    if (status == KAVRI_CORE_STATUS_NO_ERROR) {
        replaceText(payload, std::string(3'000'000, 'x').c_str());
    }
    return status;
}
