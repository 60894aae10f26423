// What the chosen fault does. KAVRI_PROBE_FAULT names it; see fault_catalogue.h
// for what there is. Without it every call and delivery takes its way untouched.
#ifndef KAVRI_PROBE_FAULTS_H
#define KAVRI_PROBE_FAULTS_H

#include <string_view>

#include "probe/calls.h"

namespace kavri::probe {

// Whether the probe knows how to break this.
bool canBreak(std::string_view fault);

// Makes the call, broken or not. Ends the process if the chosen fault is none.
kavri_core_status perform(Call& call);

// Hands the delivery to the module, broken or not.
void deliver(const Delivery& delivery);

}  // namespace kavri::probe

#endif
