// The accounts' invariant; see account.h.
#include "broker/account.h"

#include <cstdio>
#include <cstdlib>

namespace kavri::broker {

Account::~Account() {
    if (bytes_ != 0) {
        std::fprintf(stderr, "kavri-broker: an account ends with %zu bytes charged\n", bytes_);
        std::abort();
    }
}

}  // namespace kavri::broker
