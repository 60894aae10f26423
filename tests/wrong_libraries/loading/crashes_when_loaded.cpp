// Crashes as soon as it is loaded.
#include <signal.h>

#include "wrong_libraries/good_library.h"

__attribute__((constructor)) static void crash() {
    raise(SIGSEGV);
}
