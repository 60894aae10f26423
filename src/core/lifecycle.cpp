// The C functions for the life of the library and for logging.
#include "core/lifecycle.h"

#include <atomic>

#include "core/logging.h"
#include "core/shim.h"

namespace kavri::core {

namespace {

std::atomic<unsigned> timesInitialised{0};

}  // namespace

bool isInitialised() {
    return timesInitialised.load() > 0;
}

}  // namespace kavri::core

using kavri::core::timesInitialised;

KAVRI_EXPORT kavri_core_status kavri_core_init(void) {
    ++timesInitialised;
    return KAVRI_CORE_STATUS_NO_ERROR;
}

KAVRI_EXPORT kavri_core_status kavri_core_deinit(void) {
    unsigned times = timesInitialised.load();
    do {
        if (times == 0) {
            return KAVRI_CORE_STATUS_NOT_INITIALISED;
        }
    } while (!timesInitialised.compare_exchange_weak(times, times - 1));
    return KAVRI_CORE_STATUS_NO_ERROR;
}

KAVRI_EXPORT kavri_core_status kavri_core_logging_init(const char* name,
                                                       kavri_core_logging_cookie* cookie) {
    if (kavri::core::anyNull(name, cookie)) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    if (!kavri::core::isInitialised()) {
        return KAVRI_CORE_STATUS_NOT_INITIALISED;
    }
    return kavri::core::guarded([&] {
        *cookie = new kavri_core_logging{std::make_shared<kavri::core::Log>(name)};
        return KAVRI_CORE_STATUS_NO_ERROR;
    });
}

KAVRI_EXPORT kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie cookie) {
    if (cookie == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    delete cookie;
    return KAVRI_CORE_STATUS_NO_ERROR;
}
