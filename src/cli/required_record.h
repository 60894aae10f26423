// Whether the record of a case holds what its checks can only pass with. A case
// that makes too few calls, say because a library ends it early, would otherwise
// pass with all of the few checks it came to.
#ifndef KAVRI_CLI_REQUIRED_RECORD_H
#define KAVRI_CLI_REQUIRED_RECORD_H

#include <string>
#include <vector>

#include "cli/report.h"

namespace kavri::cli {

// One line per thing that is missing or there too often: "10 event deliveries
// must have been made; the record holds 9". Of a case that case_guide.h does not
// know nothing is required.
std::vector<std::string> missingFrom(const CaseReport& report);

}  // namespace kavri::cli

#endif
