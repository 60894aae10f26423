// Loses the third response, and waits for another one.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    static int received = 0;
    kavri_core_status status = GOOD(kavri_core_ipc_initiator_response_receive)(
        initiator, timeout, category, identifier, uuid, payload);
    if (status == KAVRI_CORE_STATUS_NO_ERROR && ++received == 3) {
        char** const texts[] = {category, identifier, uuid, payload};
        for (char** text : texts) {
            free(*text);
            *text = nullptr;
        }
        status = GOOD(kavri_core_ipc_initiator_response_receive)(initiator, timeout, category,
                                                                 identifier, uuid, payload);
    }
    return status;
}
