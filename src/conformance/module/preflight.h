// Whether a broker that is there already has a test service: one round trip of each kind by
// our own library, before any case. A case that fails against a service that is missing or
// wrong would be blamed on the library under test.
#ifndef KAVRI_CONFORMANCE_MODULE_PREFLIGHT_H
#define KAVRI_CONFORMANCE_MODULE_PREFLIGHT_H

#include <string>

#include "conformance/module/run_limits.h"
#include "conformance/module/service_evidence.h"

namespace kavri::conformance {

// Throws CommandFailure, with what is missing and what to do, where the broker at the socket
// does not serve, its test service does not do what it must, or the record that it is to
// write (`evidence`, or null) does not have the requests.
void checkTestService(const std::string& socket, ServiceEvidence* evidence,
                      const RunLimits& limits);

}  // namespace kavri::conformance

#endif
