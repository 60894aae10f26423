// Ends a logging context with a status that no function of its kind has.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie cookie) {
    GOOD(kavri_core_logging_deinit)(cookie);
    int status = 99;
    kavri_core_status result{};
    memcpy(&result, &status, sizeof(result));
    return result;
}
