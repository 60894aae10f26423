// The arguments and variables of the module's test framework: those that the
// tool sets itself, so that nobody else may, and those that are the user's.
#ifndef KAVRI_CLI_MODULE_ARGUMENTS_H
#define KAVRI_CLI_MODULE_ARGUMENTS_H

#include <string>
#include <vector>

namespace kavri::cli {

// Throws CommandFailure where one of the arguments meant for the module is one
// that the tool has to set itself.
void checkModuleArguments(const std::vector<std::string>& arguments);

// The environment variables by which the same could be set.
std::vector<std::string> reservedVariables();

// What makes the module run these cases (all where there are none), and after it the
// user's own.
std::vector<std::string> moduleCommandLine(const std::vector<std::string>& cases,
                                           const std::vector<std::string>& userArguments);

}  // namespace kavri::cli

#endif
