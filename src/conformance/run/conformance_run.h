// A whole run of `kavri conformance`: each library under test in turn, as often and
// with what faults the plan asks for, and its reports.
#ifndef KAVRI_CONFORMANCE_RUN_CONFORMANCE_RUN_H
#define KAVRI_CONFORMANCE_RUN_CONFORMANCE_RUN_H

#include <optional>
#include <string>
#include <vector>

#include "conformance/cases/expectations.h"
#include "conformance/module/run_limits.h"
#include "conformance/report/baseline.h"
#include "conformance/report/report_files.h"
#include "conformance/run/library_run.h"
#include "conformance/run/run_plan.h"
#include "process/exit_status.h"

namespace kavri::conformance {

class ConformanceRun {
  public:
    // Both must outlive this.
    ConformanceRun(const RunPlan& plan, const RunLimits& limits)
        : plan_(plan), limits_(limits), begun_(Clock::now()) {}

    // Once. Returns the verdict on all that was to be run, also where some of it could not
    // be; throws CommandFailure where the command line is wrong, and where the run was cut
    // off. The report says the same as the exception.
    process::ExitStatus run();

  private:
    using Clock = RunLimits::Clock;

    std::optional<std::string> folder() const;
    LibraryReport& report() { return report_.libraries[current_]; }
    OtherEnd foreignEnd();
    WatchdogSettings watchdog() const;
    ModuleRunRequest requestFor(const LibraryRun& library,
                                const std::filesystem::path& socket) const;
    void prepare();
    void runLibraries();
    void runLibrary();
    void runOnce(const LibraryRun& library, const std::vector<std::string>& cases,
                 RunDisplay& display);
    void repeat(const LibraryRun& library, const std::vector<std::string>& cases,
                RunDisplay& display);
    void prove(const LibraryRun& library, RunDisplay& display);
    void readEarlierResults();
    void compareWithBaseline();
    void addToReport(std::vector<CaseReport>& cases);
    void writeFiles();
    void finishFiles();
    void throwUnlessEnded(const CasesOutcome& outcome,
                          const std::optional<process::ExitState>& brokerExit) const;
    process::ExitStatus judge();

    const RunPlan& plan_;
    const RunLimits& limits_;
    const Clock::time_point begun_;
    Clock::time_point casesBegun_;  // of the library under test
    KitFiles files_;
    std::optional<ServiceEvidence> evidence_;  // of a service that is not the kit's
    Report report_;
    std::size_t current_ = 0;  // the library under test, in the report and the plan
    std::optional<process::ExitStatus> failure_;  // of the first library that was not run
    std::optional<ReportFiles> reportFiles_;
    Expectations expectations_;
    std::optional<Baseline> baseline_;
};

}  // namespace kavri::conformance

#endif
