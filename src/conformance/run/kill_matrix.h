// Mutation testing of the module: its cases run once with each fault of the catalogue,
// and the faults and checks are matched in a kill matrix.
#ifndef KAVRI_CONFORMANCE_RUN_KILL_MATRIX_H
#define KAVRI_CONFORMANCE_RUN_KILL_MATRIX_H

#include <functional>
#include <string>
#include <vector>

#include "conformance/faults/fault_catalogue.h"
#include "conformance/report/report.h"
#include "conformance/run/library_run.h"

namespace kavri::conformance {

using MatrixProgress = std::function<void(const FaultReport& report, size_t done, size_t all)>;

// Runs each fault with a broker of its own, on so many threads. `baseline`: the cases
// without a fault, which all pass. `progress` is called by one thread at a time. Throws
// CommandFailure at the deadline or a signal.
MatrixReport runKillMatrix(const RunContext& context, const std::vector<CaseReport>& baseline,
                           unsigned jobs, const MatrixProgress& progress);

// How the effects of a fault differ from what the catalogue says.
std::vector<std::string> deviationsFrom(const Fault& fault, const FaultReport& report);

// Every check of the run without a fault and of those with one, and the faults that turned
// it red.
std::vector<CheckKilled> checksKilled(const std::vector<CaseReport>& baseline,
                                      const std::vector<FaultReport>& faults);

}  // namespace kavri::conformance

#endif
