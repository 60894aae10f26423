// What can only be found out within the process about what the library hands over: whether
// its strings can be the caller's to free, and whether its thread is fit for callbacks.
#ifndef KAVRI_CONFORMANCE_AGENT_HANDED_OVER_H
#define KAVRI_CONFORMANCE_AGENT_HANDED_OVER_H

#include <array>

#include "conformance/agent/calls.h"

namespace kavri::conformance {

// Records a breach for each string that malloc cannot have returned, or that is handed over
// twice. `fields`: where the library stored them; null where a message has no such field.
void checkStrings(unsigned number, const std::array<char**, fieldCount>& fields);

// Records a breach where a signal could interrupt the callback on this thread.
void checkSignals(unsigned number);

}  // namespace kavri::conformance

#endif
