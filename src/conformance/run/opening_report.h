// The report of a run before anything was run: nothing in it has a verdict.
#ifndef KAVRI_CONFORMANCE_RUN_OPENING_REPORT_H
#define KAVRI_CONFORMANCE_RUN_OPENING_REPORT_H

#include <string>

#include "conformance/report/report.h"
#include "conformance/run/run_plan.h"

namespace kavri::conformance {

// Says of the run, and of each library, that it has not ended yet.
Report openingReport(const RunPlan& plan);

// The run was cut off. A library that has no reason of its own has that of the run.
void noteWhyIncomplete(Report& report, const std::string& reason);

}  // namespace kavri::conformance

#endif
