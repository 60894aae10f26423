// The time that a run may take, and what runs at a time; see run_plan.h.
#include "conformance/run/run_plan.h"

#include <algorithm>
#include <thread>

namespace kavri::conformance {

namespace {

// Of the whole run, unless the user sets a limit.
constexpr double runLimitSeconds = 60;
constexpr double proofLimitSeconds = 300;

// The cases mostly sleep.
constexpr unsigned jobsPerProcessor = 4;

// Of repeated runs; more than those that are judged.
constexpr unsigned runsOfEachProcess = 8;

}  // namespace

double RunPlan::limitSeconds() const {
    const double oneRun = proves ? proofLimitSeconds : runLimitSeconds;
    const auto libraryCount = static_cast<double>(std::max<size_t>(1, libraries.size()));
    return timeoutSeconds.value_or(oneRun * timeScale * repeat.value_or(1) * libraryCount);
}

unsigned RunPlan::jobsFor(unsigned most) const {
    const unsigned byDefault = jobsPerProcessor * std::max(1U, std::thread::hardware_concurrency());
    return std::min(jobs == 0 ? byDefault : jobs, most);
}

// With enough runs in each process to show what grows, unless the user wants more processes.
unsigned RunPlan::repeatJobs() const {
    if (!startsBrokers()) {
        return 1;
    }
    return jobsFor(jobs == 0 ? std::max(1U, *repeat / runsOfEachProcess) : *repeat);
}

}  // namespace kavri::conformance
