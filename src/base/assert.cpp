// The end of a program with a broken invariant; see assert.h.
#include "base/assert.h"

#include <cstdio>
#include <cstdlib>

namespace kavri::base {

void failAssertion(const char* file, int line, const char* expression, const char* reason) {
    std::fprintf(stderr, "%s:%d: assertion %s failed: %s\n", file, line, expression, reason);
    std::abort();
}

}  // namespace kavri::base
