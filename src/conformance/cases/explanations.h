// Lists and explains the cases and the faults, without running anything.
#ifndef KAVRI_CONFORMANCE_CASES_EXPLANATIONS_H
#define KAVRI_CONFORMANCE_CASES_EXPLANATIONS_H

#include <ostream>
#include <string>
#include <vector>

namespace kavri::conformance {

// The cases that match one of the patterns, or all where there is none. Throws CommandFailure
// where a pattern matches none.
void listCases(const std::vector<std::string>& patterns, std::ostream& output);
void listFaults(std::ostream& output);

// Throws CommandFailure where there is no case and no fault of that name.
void explain(const std::string& name, std::ostream& output);

}  // namespace kavri::conformance

#endif
