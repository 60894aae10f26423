// Crashes when it is unloaded.
#include <signal.h>

#include "wrong_libraries/good_library.h"

__attribute__((destructor)) static void crash() {
    raise(SIGSEGV);
}
