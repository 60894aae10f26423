// What the record of a case shows of rules that the library broke, though no check of the
// module sees it: warnings, each with the rule and its sentence.
//
// Every rule asks for something that was recorded, and none for something that was not. So a
// case that was cut off can be judged too.
#ifndef KAVRI_CONFORMANCE_CASES_RECORD_JUDGEMENT_H
#define KAVRI_CONFORMANCE_CASES_RECORD_JUDGEMENT_H

#include <string>
#include <string_view>
#include <vector>

#include "conformance/report/report.h"

namespace kavri::conformance {

// A warning for each rule that was broken.
std::vector<WarningReport> judgeRecord(const CaseReport& report);

// The warning for a rule of interface_rules.h, which must be there. `text`: what the library did.
WarningReport warningFor(std::string_view rule, const std::string& text);

}  // namespace kavri::conformance

#endif
