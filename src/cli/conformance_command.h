// `kavri conformance`: runs the conformance module against a broker and tells
// what came of it.
#ifndef KAVRI_CLI_CONFORMANCE_COMMAND_H
#define KAVRI_CLI_CONFORMANCE_COMMAND_H

#include "cli/conformance_options.h"
#include "cli/exit_status.h"

namespace kavri::cli {

// Throws CommandFailure where there can be no verdict. Ends the process by the
// signal that asked it to stop, after tidying up.
ExitStatus runConformance(const ConformanceOptions& options);

}  // namespace kavri::cli

#endif
