// What the report of a run comes to for who called the command: the exit status, and the line
// that says why there is no more.
#ifndef KAVRI_CONFORMANCE_RUN_RUN_RESULT_H
#define KAVRI_CONFORMANCE_RUN_RUN_RESULT_H

#include <optional>
#include <string>

#include "conformance/report/report.h"
#include "process/exit_status.h"

namespace kavri::conformance {

// `failure`: of the first library that was not run, if there is one. With a baseline, failures
// that it has do not count, whatever the verdict.
process::ExitStatus exitStatusOf(const Report& report, std::optional<process::ExitStatus> failure);

// The first case that was cut off, known failures apart, and why; empty where none was.
std::string cutOffText(const Report& report);

// Why the first case without a verdict has none; empty where all have one.
std::string whyNotRun(const LibraryReport& library);

}  // namespace kavri::conformance

#endif
