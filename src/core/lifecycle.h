// Whether the library is up: how many kavri_core_init are not undone yet.
#ifndef KAVRI_CORE_LIFECYCLE_H
#define KAVRI_CORE_LIFECYCLE_H

namespace kavri::core {

bool isInitialised();

}  // namespace kavri::core

#endif
