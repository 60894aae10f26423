// Prints a line as soon as it is loaded, which is no failure.
#include <stdio.h>

#include "wrong_libraries/good_library.h"

__attribute__((constructor)) static void print() {
    puts("the library says hello");
    fflush(stdout);
}
