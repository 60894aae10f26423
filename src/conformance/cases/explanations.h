// Lists and explains the cases and the faults, without running anything.
#ifndef KAVRI_CONFORMANCE_CASES_EXPLANATIONS_H
#define KAVRI_CONFORMANCE_CASES_EXPLANATIONS_H

#include <ostream>
#include <string>
#include <vector>

#include "conformance/cases/requirements.h"

namespace kavri::conformance {

// The cases of the level or above that match one of the patterns, or all where there is none.
// Throws CommandFailure where a pattern matches none, or no case is left.
void listCases(const std::vector<std::string>& patterns, Level level, std::ostream& output);
void listFaults(std::ostream& output);

// Throws CommandFailure where there is no case and no fault of that name.
void explain(const std::string& name, std::ostream& output);

}  // namespace kavri::conformance

#endif
