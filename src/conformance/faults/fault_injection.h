// Injects the fault that KAVRI_PROBE_FAULT names, see fault_catalogue.h. Where the
// variable is not set every call and delivery passes unchanged.
#ifndef KAVRI_CONFORMANCE_FAULTS_FAULT_INJECTION_H
#define KAVRI_CONFORMANCE_FAULTS_FAULT_INJECTION_H

#include "conformance/agent/calls.h"

namespace kavri::conformance {

// Makes the call, broken or not. Ends the process if there is no fault of the name.
kavri_core_status perform(Call& call);

// Calls the module's callback, or does what the fault does instead.
void deliver(const Delivery& delivery);

}  // namespace kavri::conformance

#endif
