// The time that a run may take; see run_plan.h.
#include "conformance/run/run_plan.h"

#include <algorithm>

namespace kavri::conformance {

namespace {

// Of the whole run, unless the user sets a limit.
constexpr double runLimitSeconds = 60;
constexpr double proofLimitSeconds = 300;

}  // namespace

double RunPlan::limitSeconds() const {
    const double oneRun = proves ? proofLimitSeconds : runLimitSeconds;
    const auto libraryCount = static_cast<double>(std::max<size_t>(1, libraries.size()));
    return timeoutSeconds.value_or(oneRun * timeScale * repeat.value_or(1) * libraryCount);
}

}  // namespace kavri::conformance
