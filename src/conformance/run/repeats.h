// Repeats a run: how often it passes, and whether memory, threads or descriptors grow.
//
// The runs are divided among as many processes of the module as run at a time. Each makes its
// share one after the other, so that what each run leaves behind adds up; where one ends early,
// another makes the rest.
#ifndef KAVRI_CONFORMANCE_RUN_REPEATS_H
#define KAVRI_CONFORMANCE_RUN_REPEATS_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "conformance/report/report.h"
#include "conformance/run/library_run.h"

namespace kavri::conformance {

struct RepeatPlan {
    unsigned runs = 1;
    bool untilFail = false;           // ends after the first run that does not pass
    std::optional<unsigned> shuffle;  // cases in another order each time, from this seed on
    unsigned jobs = 1;                // processes at a time, each with a broker of its own
    bool failsOnGrowth = false;
    std::optional<OtherEnd> otherEnd;  // or all with this one
};

struct RepeatOutcome {
    RepeatReport report;
    // Of the first run that did not pass, or of the last one.
    std::vector<CaseReport> cases;
    RunEnd end = RunEnd::moduleEnded;
};

using RepeatProgress = std::function<void(unsigned done, unsigned passed)>;
// Marks the known failures of a run, before it is judged.
using MarkKnownFailures = std::function<void(std::vector<CaseReport>&)>;

// `request`: all but the socket of a broker of its own. Both functions are called by one thread at
// a time. Throws CommandFailure when no broker can be started.
RepeatOutcome runRepeatedly(const RunContext& context, const RepeatPlan& plan,
                            const ModuleRunRequest& request, const std::vector<std::string>& cases,
                            const MarkKnownFailures& mark, const RepeatProgress& progress);

}  // namespace kavri::conformance

#endif
