// The check of the fuzz targets: says what does not hold, and ends the program.
#ifndef KAVRI_TESTS_FUZZ_FUZZ_CHECK_H
#define KAVRI_TESTS_FUZZ_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

namespace kavri::tests {

inline void mustHold(bool rule, const char* what) {
    if (!rule) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

}  // namespace kavri::tests

#endif
