// What can be asked of the kit without running anything: its cases, its faults, and
// what each is about.
#ifndef KAVRI_CLI_EXPLANATIONS_H
#define KAVRI_CLI_EXPLANATIONS_H

#include <ostream>
#include <string>

namespace kavri::cli {

void listCases(std::ostream& output);
void listFaults(std::ostream& output);

// Throws CommandFailure where there is no case and no fault of that name.
void explain(const std::string& name, std::ostream& output);

}  // namespace kavri::cli

#endif
