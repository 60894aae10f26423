// Opens no logging context, and says that it did.
#include "wrong_libraries/good_library.h"

kavri_core_status kavri_core_logging_init(const char* /*name*/,
                                          kavri_core_logging_cookie* /*cookie*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
