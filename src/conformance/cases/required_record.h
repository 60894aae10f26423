// Compares the record of a case with the calls that the case must make. Without that, a
// case that a library ends early would pass with the few checks made by then.
#ifndef KAVRI_CONFORMANCE_CASES_REQUIRED_RECORD_H
#define KAVRI_CONFORMANCE_CASES_REQUIRED_RECORD_H

#include <string>
#include <vector>

#include "conformance/cases/requirements.h"
#include "conformance/report/report.h"

namespace kavri::conformance {

// One line for each kind of call that was made too rarely or too often: "10 event deliveries
// must have been made; the record holds 9". Nothing is
// required of a case that is not in case_guide.h, and no status of a call whose check is
// below the level.
std::vector<std::string> missingFrom(const CaseReport& report, Level level = Level::may);

}  // namespace kavri::conformance

#endif
