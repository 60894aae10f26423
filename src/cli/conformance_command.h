// `kavri conformance`: runs the conformance module against a broker and tells
// what came of it.
#ifndef KAVRI_CLI_CONFORMANCE_COMMAND_H
#define KAVRI_CLI_CONFORMANCE_COMMAND_H

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/exit_status.h"

namespace kavri::cli {

struct ConformanceOptions {
    std::optional<std::string> socket;
    std::optional<std::string> library;
    std::vector<std::string> casePatterns;
    double timeoutSeconds = 60;
    std::vector<std::string> moduleArguments;  // what stands after "--"
};

void describeConformance(CLI::App& command, ConformanceOptions& options);

// Throws CommandFailure where there can be no verdict. Ends the process by the
// signal that asked it to stop, after tidying up.
ExitStatus runConformance(const ConformanceOptions& options);

}  // namespace kavri::cli

#endif
