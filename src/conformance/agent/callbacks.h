// The callbacks of the probe: the library is given them in place of the module's, so that
// deliveries can be recorded, and broken by the chosen fault, before they reach the module.
#ifndef KAVRI_CONFORMANCE_AGENT_CALLBACKS_H
#define KAVRI_CONFORMANCE_AGENT_CALLBACKS_H

#include <kavri/ipc.h>

#include "conformance/agent/calls.h"

namespace kavri::conformance {

// What the library is to be given as the context of responseArrived or eventArrived, for a
// callback of the module with its context.
Installation& addInstallation(const void* initiator,
                              kavri_core_ipc_initiator_response_callback callback, void* context);
Installation& addInstallation(const void* initiator,
                              kavri_core_ipc_initiator_event_callback callback, void* context);

// The callbacks. With a context that is no installation, the delivery goes to the stream's
// latest one with just that context, for the module to notice.
void responseArrived(char** targetCategory, char** targetIdentifier, char** uuid, char** payload,
                     void* context);
void eventArrived(char** targetCategory, char** targetIdentifier, char** payload, void* context);

}  // namespace kavri::conformance

#endif
