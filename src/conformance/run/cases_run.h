// Runs the selected cases of the module: in one process, and where that hangs or crashes,
// the remaining cases in a new one.
#ifndef KAVRI_CONFORMANCE_RUN_CASES_RUN_H
#define KAVRI_CONFORMANCE_RUN_CASES_RUN_H

#include <functional>
#include <string>
#include <vector>

#include "conformance/module/module_run.h"

namespace kavri::conformance {

struct CasesOutcome {
    std::vector<CaseReport> cases;  // all, in the order of the module
    RunEnd end = RunEnd::moduleEnded;
    bool refused = false;                  // the module rejected its arguments, and ran no case
    std::vector<std::string> brokerLines;  // the last of the broker's log
    std::vector<nlohmann::json> usage;     // what the processes held after each case
};

class CasesRun {
  public:
    // Called after each case with all that have ended, before the last of them is shown:
    // it may add to them what only the whole run knows.
    using Progress = std::function<void(std::vector<CaseReport>&)>;

    // `broker`: the run's own, or null. All of these must outlive this.
    CasesRun(const ConformanceModule& module, process::ChildProcess* broker,
             const RunLimits& limits, RunDisplay& display, WatchdogSettings watchdog)
        : module_(module),
          broker_(broker),
          limits_(limits),
          display_(display),
          watchdog_(watchdog) {}

    // Replaces the cases of the request by these.
    CasesOutcome run(ModuleRunRequest request, const std::vector<std::string>& cases,
                     const Progress& progress);

  private:
    bool runRest(ModuleRunRequest& request, std::vector<std::string>& left, CasesOutcome& outcome,
                 const Progress& progress);
    std::string standstillText() const;
    std::string whyNoneBegan(RunEnd end, const process::ExitState& exit) const;
    bool blameLastCase(RunEnd end, const process::ExitState& exit, CaseReport& last) const;

    const ConformanceModule& module_;
    process::ChildProcess* broker_;
    const RunLimits& limits_;
    RunDisplay& display_;
    const WatchdogSettings watchdog_;
};

}  // namespace kavri::conformance

#endif
