// Checks of what the library passes to its caller that only work within its process: whether
// the strings were allocated by malloc, and whether the callback's thread blocks all signals.
#ifndef KAVRI_CONFORMANCE_AGENT_HANDED_OVER_H
#define KAVRI_CONFORMANCE_AGENT_HANDED_OVER_H

#include <array>

#include "conformance/agent/calls.h"

namespace kavri::conformance {

// Records a breach for each string that cannot have been allocated by malloc, or that two fields
// of the message share. `fields`: where the library stored them; null for fields that the
// message does not have.
void checkStrings(unsigned number, const std::array<char**, fieldCount>& fields);

// Records a breach where a signal could interrupt the callback on this thread.
void checkSignals(unsigned number);

}  // namespace kavri::conformance

#endif
