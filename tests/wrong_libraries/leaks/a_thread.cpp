// Starts a thread with each case, which never ends.
#include <unistd.h>

#include <thread>

#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    std::thread([] {
        while (true) {
            pause();
        }
    }).detach();
    return GOOD(kavri_core_ipc_deinit)(initiator);
}
