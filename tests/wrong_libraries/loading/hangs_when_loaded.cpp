// Does not come back from being loaded.
#include <unistd.h>

#include "wrong_libraries/good_library.h"

__attribute__((constructor)) static void hang() {
    while (true) {
        pause();
    }
}
