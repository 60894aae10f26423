// The failures of a run as a list of known failures, in the form that Expectations reads.
#ifndef KAVRI_CONFORMANCE_CASES_EXPECTATION_LIST_H
#define KAVRI_CONFORMANCE_CASES_EXPECTATION_LIST_H

#include <string>

#include "conformance/cases/expectations.h"
#include "conformance/report/report.h"

namespace kavri::conformance {

// An entry for each check that failed, and for each case that failed otherwise. Reasons that
// are known already are kept; others say that nobody has explained the failure yet.
std::string expectationList(const Report& report, const Expectations& known);

}  // namespace kavri::conformance

#endif
