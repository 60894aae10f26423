// The selected cases of the module, run to the end: in one process, and where that
// hangs or crashes, what is left in a fresh one.
#ifndef KAVRI_CLI_CASES_RUN_H
#define KAVRI_CLI_CASES_RUN_H

#include <functional>
#include <string>
#include <vector>

#include "cli/module_run.h"

namespace kavri::cli {

struct CasesOutcome {
    std::vector<CaseReport> cases;  // all, in the order of the module
    RunEnd end = RunEnd::moduleEnded;
    bool refused = false;  // the module ended without any case: it did not like its arguments
    std::vector<std::string> brokerLines;  // what the broker said last
    std::vector<nlohmann::json> usage;     // what the processes held after each case
};

class CasesRun {
  public:
    // Called with what is there so far, after each case.
    using Progress = std::function<void(const std::vector<CaseReport>&)>;

    // `broker`: the run's own, or null. All of these must outlive this.
    CasesRun(const ConformanceModule& module, ChildProcess* broker, const RunLimits& limits,
             RunDisplay& display, Patience patience)
        : module_(module),
          broker_(broker),
          limits_(limits),
          display_(display),
          patience_(patience) {}

    // The request says with what; its cases are replaced by these.
    CasesOutcome run(ModuleRunRequest request, const std::vector<std::string>& cases,
                     const Progress& progress);

  private:
    bool runRest(ModuleRunRequest& request, std::vector<std::string>& left, CasesOutcome& outcome,
                 const Progress& progress);

    const ConformanceModule& module_;
    ChildProcess* broker_;
    const RunLimits& limits_;
    RunDisplay& display_;
    const Patience patience_;
};

// The same without a word to anybody.
CasesOutcome runUnseen(const ConformanceModule& module, ChildProcess* broker,
                       const RunLimits& limits, Patience patience, ModuleRunRequest request,
                       const std::vector<std::string>& cases);

}  // namespace kavri::cli

#endif
