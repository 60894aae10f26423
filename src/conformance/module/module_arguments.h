// The arguments and variables of the module's test framework: those that are reserved for
// the tool, and those that the user may set.
#ifndef KAVRI_CONFORMANCE_MODULE_MODULE_ARGUMENTS_H
#define KAVRI_CONFORMANCE_MODULE_MODULE_ARGUMENTS_H

#include <string>
#include <vector>

namespace kavri::conformance {

// Throws CommandFailure where one of the user's arguments for the module is reserved.
void checkModuleArguments(const std::vector<std::string>& arguments);

// The environment variables that set the same.
std::vector<std::string> reservedVariables();

// What makes the module run these cases (all where there are none), and after it the
// user's own.
std::vector<std::string> moduleCommandLine(const std::vector<std::string>& cases,
                                           const std::vector<std::string>& userArguments);

}  // namespace kavri::conformance

#endif
