// Leaves a thread and two descriptors behind with each initiator.
#include <pthread.h>
#include <unistd.h>

#include "wrong_libraries/good_library.h"

static void* sleepForEver(void* /*unused*/) {
    while (true) {
        pause();
    }
}

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    int ends[2] = {};
    pthread_t thread{};
    if (pipe(ends) != 0 || pthread_create(&thread, nullptr, sleepForEver, nullptr) != 0) {
        abort();
    }
    return GOOD(kavri_core_ipc_deinit)(initiator);
}
