// The same run again and again: how often it passes, and whether anything grows.
#ifndef KAVRI_CLI_REPEATS_H
#define KAVRI_CLI_REPEATS_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/library_run.h"
#include "cli/report.h"

namespace kavri::cli {

struct RepeatPlan {
    unsigned runs = 1;
    bool untilFail = false;             // ends after the first run that does not pass
    std::optional<unsigned> shuffle;    // cases in another order each time, from this seed on
    unsigned jobs = 1;                  // so many at a time, each with a broker of its own
    std::optional<std::string> socket;  // or all with this one
};

struct RepeatOutcome {
    RepeatReport report;
    // Of the first run that did not pass, or of the last one.
    std::vector<CaseReport> cases;
    RunEnd end = RunEnd::moduleEnded;
};

class Repeats {
  public:
    using Progress = std::function<void(unsigned done, unsigned passed)>;
    // Puts to the cases of a run what is known beside it, before they are judged.
    using Annotate = std::function<void(std::vector<CaseReport>&)>;

    Repeats(const KitFiles& files, const LibraryRun& library, const RunLimits& limits,
            Patience patience)
        : files_(files), library_(library), limits_(limits), patience_(patience) {}

    // `request` says with what, but for the broker. Both functions are called by
    // one thread at a time. Throws CommandFailure when no broker can be started.
    RepeatOutcome run(const RepeatPlan& plan, const ModuleRunRequest& request,
                      const std::vector<std::string>& cases, const Annotate& annotate,
                      const Progress& progress);

  private:
    const KitFiles& files_;
    const LibraryRun& library_;
    const RunLimits& limits_;
    const Patience patience_;
};

}  // namespace kavri::cli

#endif
