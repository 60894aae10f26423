// The initiators of the process, numbered from 1 in the order in which they were made. In the
// record a number stands for a handle: an address may be used again for the next initiator.
#ifndef KAVRI_CONFORMANCE_AGENT_HANDLES_H
#define KAVRI_CONFORMANCE_AGENT_HANDLES_H

#include "conformance/agent/record.h"

namespace kavri::conformance {

// The library has stored this handle of a new initiator. Returns its number.
unsigned numberNewHandle(const void* handle);

// The number of the last initiator with this handle; null for null, "unknown" where the
// library never stored it.
Json handleNumber(const void* handle);

}  // namespace kavri::conformance

#endif
