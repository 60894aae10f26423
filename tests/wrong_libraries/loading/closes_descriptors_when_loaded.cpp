// When it is loaded, closes every descriptor but the first three: a daemon's habit.
#include <unistd.h>

#include "wrong_libraries/good_library.h"

__attribute__((constructor)) static void closeAll() {
    close_range(3, ~0U, 0);
}
