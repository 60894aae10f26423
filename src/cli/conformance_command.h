// `kavri conformance`: runs the conformance module against a broker and reports the
// verdict.
#ifndef KAVRI_CLI_CONFORMANCE_COMMAND_H
#define KAVRI_CLI_CONFORMANCE_COMMAND_H

#include <CLI/CLI.hpp>
#include <string>

#include "conformance/run/run_plan.h"
#include "process/exit_status.h"

namespace kavri::cli {

struct ConformanceOptions {
    conformance::RunPlan plan;
    // Instead of a run.
    bool listsCases = false;
    bool listsFaults = false;
    std::string explained;  // a case or a fault; empty: none
};

void describeConformance(CLI::App& command, ConformanceOptions& options);

// `command`: as it was parsed. Throws CommandFailure where there can be no verdict. Ends the
// process by the signal that asked it to stop, after cleaning up.
process::ExitStatus runConformance(const CLI::App& command, const ConformanceOptions& options);

}  // namespace kavri::cli

#endif
