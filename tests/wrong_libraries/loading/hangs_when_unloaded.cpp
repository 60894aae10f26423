// Does not come back from being unloaded.
#include <unistd.h>

#include "wrong_libraries/good_library.h"

__attribute__((destructor)) static void hang() {
    while (true) {
        pause();
    }
}
