// The status that a frame carries, as this library's callers know it.
#ifndef KAVRI_CORE_CONNECTION_FRAME_STATUS_H
#define KAVRI_CORE_CONNECTION_FRAME_STATUS_H

#include "kavri/core.h"
#include "wire/frame.h"

namespace kavri::core {

// A status that this library does not know is a later version's.
inline kavri_core_status statusIn(const wire::Frame& frame) {
    return frame.status <= KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN
               ? static_cast<kavri_core_status>(frame.status)
               : KAVRI_CORE_STATUS_IPC_INCOMPATIBLE;
}

// Of a frame that reports a failure; `otherwise` where it names none.
inline kavri_core_status failureIn(const wire::Frame& frame, kavri_core_status otherwise) {
    const kavri_core_status status = statusIn(frame);
    return status == KAVRI_CORE_STATUS_NO_ERROR ? otherwise : status;
}

}  // namespace kavri::core

#endif
