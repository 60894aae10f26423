// Whether the library is initialised: more calls of kavri_core_init than were undone.
#ifndef KAVRI_CORE_LIFECYCLE_H
#define KAVRI_CORE_LIFECYCLE_H

namespace kavri::core {

bool isInitialised();

}  // namespace kavri::core

#endif
