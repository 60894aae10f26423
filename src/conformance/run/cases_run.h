// Runs the selected cases of the module: in one process, and where that hangs or crashes,
// the remaining cases in a new one.
#ifndef KAVRI_CONFORMANCE_RUN_CASES_RUN_H
#define KAVRI_CONFORMANCE_RUN_CASES_RUN_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "conformance/module/module_run.h"

namespace kavri::conformance {

struct CasesOutcome {
    std::vector<CaseReport> cases;  // all, in the order of the module
    RunEnd end = RunEnd::moduleEnded;
    bool refused = false;                  // the module rejected its arguments, and ran no case
    std::vector<std::string> brokerLines;  // the last of the broker's log
    // What the module held after the cases; none where their process did not come to the end.
    std::optional<nlohmann::json> held;
};

class CasesRun {
  public:
    // Called after each case with all that have ended, before the last of them is shown:
    // it may add to them what only the whole run knows.
    using Progress = std::function<void(std::vector<CaseReport>&)>;

    // All of these must outlive this.
    CasesRun(const ConformanceModule& module, const OtherEnd& otherEnd, const RunLimits& limits,
             RunDisplay& display, WatchdogSettings watchdog)
        : module_(module),
          otherEnd_(otherEnd),
          limits_(limits),
          display_(display),
          watchdog_(watchdog) {}

    // Replaces the cases of the request by these.
    CasesOutcome run(ModuleRunRequest request, const std::vector<std::string>& cases,
                     const Progress& progress);

    // Takes what a round of all cases came to, and says whether to go on.
    using TakeRound = std::function<bool(CasesOutcome outcome)>;

    // The same in rounds, as often as the request says, in one process. Where that ends early,
    // the round is completed in others and is the last. Returns how many rounds there were.
    unsigned runRounds(ModuleRunRequest request, const std::vector<std::string>& cases,
                       const Progress& progress, const TakeRound& takeRound);

  private:
    // What is known of the round under way.
    struct Round {
        CasesOutcome outcome;
        std::vector<std::string> left;
    };

    bool runRest(ModuleRunRequest& request, Round& round, const Progress& progress,
                 const ModuleRun::RoundEnded& roundEnded);
    std::string standstillText() const;
    std::string whyNoneBegan(RunEnd end, const process::ExitState& exit) const;
    bool blameLastCase(const ModuleRun& run, RunEnd end, CaseReport& last) const;

    const ConformanceModule& module_;
    const OtherEnd otherEnd_;
    const RunLimits& limits_;
    RunDisplay& display_;
    const WatchdogSettings watchdog_;
};

}  // namespace kavri::conformance

#endif
