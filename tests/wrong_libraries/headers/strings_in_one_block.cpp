// Returns category and identifier in one allocation.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    const kavri_core_status status = GOOD(kavri_core_ipc_initiator_response_receive)(
        initiator, timeout, category, identifier, uuid, payload);
    if (status == KAVRI_CORE_STATUS_NO_ERROR) {
        constexpr size_t secondAt = 20;
        char* const block = static_cast<char*>(calloc(1, 100));
        strncpy(block, *category, secondAt - 1);
        strncpy(block + secondAt, *identifier, secondAt - 1);
        free(*category);
        free(*identifier);
        *category = block;
        *identifier = block + secondAt;
    }
    return status;
}
