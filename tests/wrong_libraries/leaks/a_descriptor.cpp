// Forgets one descriptor with each case.
#include <stdlib.h>
#include <unistd.h>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    if (dup(STDERR_FILENO) < 0) {
        abort();
    }
    return GOOD(kavri_core_ipc_deinit)(initiator);
}
