// Runs on several threads, and the sum of them; see repeats.h.
#include "conformance/run/repeats.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include "conformance/run/growth.h"
#include "conformance/run/work_share.h"

namespace kavri::conformance {

namespace {

namespace fs = std::filesystem;

// What a process holds, with the keys of the probe.
nlohmann::json usageOf(pid_t process) {
    const fs::path folder = fs::path("/proc") / std::to_string(process);
    const auto entries = [&folder](const char* name) {
        std::error_code error;
        const fs::directory_iterator all(folder / name, error);
        return error ? 0 : std::distance(begin(all), end(all));
    };
    nlohmann::json usage{{"descriptors", entries("fd")}, {"threads", entries("task")}};
    std::ifstream status(folder / "status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long kibibytes = 0;
            status >> kibibytes;
            usage["residentKiB"] = kibibytes;
        }
    }
    return usage;
}

// The values after each run, by what was held.
using HeldByName = std::map<std::string, std::vector<double>>;

void note(HeldByName& held, const std::string& whose, const nlohmann::json& usage) {
    for (const auto& [what, value] : usage.items()) {
        held[fmt::format("{}, {}", whose, what)].push_back(value.get<double>());
    }
}

// Only the module's process is the library's.
std::optional<double> limitRiseOf(const std::string& what) {
    if (!what.starts_with("module, ")) {
        return std::nullopt;
    }
    return what.ends_with("KiB") ? limitRiseKiB : limitRiseCount;
}

// The results of all runs, for all threads.
class Tally {
  public:
    Tally(const MarkKnownFailures& mark, const RepeatProgress& progress)
        : mark_(mark), progress_(progress) {}

    // Whether the run passed.
    bool add(CasesOutcome outcome) {
        const std::lock_guard lock(mutex_);
        mark_(outcome.cases);
        addLatencies(outcome.cases, result_.report.latencies);
        const bool passed =
            outcome.end == RunEnd::moduleEnded && worstOf(outcome.cases) == Verdict::pass;
        ++result_.report.runs;
        result_.report.passed += passed ? 1 : 0;
        if (!hasFailed_) {  // the first that did not pass is kept
            result_.cases = std::move(outcome.cases);
        }
        hasFailed_ = hasFailed_ || !passed;
        if (outcome.end == RunEnd::timeOver || outcome.end == RunEnd::signalled) {
            result_.end = outcome.end;
        }
        progress_(result_.report.runs, result_.report.passed);
        return passed;
    }

    // What one process held. Of several the one that grew the most is kept.
    void add(const HeldByName& held) {
        const std::lock_guard lock(mutex_);
        for (const auto& [what, values] : held) {
            const RepeatReport::Growth growth = growthOf(what, values, limitRiseOf(what));
            auto& all = result_.report.growth;
            const auto known = std::ranges::find(all, what, &RepeatReport::Growth::what);
            if (known == all.end()) {
                all.push_back(growth);
            } else if (growth.slope.value_or(0) > known->slope.value_or(0)) {
                *known = growth;
            }
        }
    }

    RepeatOutcome result() { return std::move(result_); }

  private:
    const MarkKnownFailures& mark_;
    const RepeatProgress& progress_;
    std::mutex mutex_;
    bool hasFailed_ = false;
    RepeatOutcome result_;
};

// The runs that one worker makes, in one process of the module after the other.
class ShareOfRuns {
  public:
    ShareOfRuns(const RunContext& context, const RepeatPlan& plan, const ModuleRunRequest& request,
                const std::vector<std::string>& cases, Tally& tally, std::atomic<bool>& isOver)
        : context_(context),
          plan_(plan),
          request_(request),
          cases_(cases),
          tally_(tally),
          isOver_(isOver) {}

    // Those numbered from `begin` up to `end`.
    void run(unsigned begin, unsigned end) {
        unsigned next = begin;
        while (next < end && !isOver_) {
            next += runProcess(next, end - next);
        }
    }

  private:
    unsigned runProcess(unsigned first, unsigned runs) {
        if (!plan_.otherEnd && !broker_) {
            broker_.emplace(context_.files.broker, context_.limits);
        }
        ModuleRunRequest request = request_;
        if (broker_) {
            request.brokerSocket = broker_->socket();
        }
        request.rounds = runs;
        if (plan_.shuffle) {
            request.userArguments.push_back(fmt::format("--random={}", *plan_.shuffle + first));
        }
        HeldByName held;
        RunEnd end = RunEnd::moduleEnded;
        const unsigned done =
            runRoundsUnseen(context_, broker_ ? broker_->asOtherEnd() : *plan_.otherEnd,
                            std::move(request), cases_, [&](CasesOutcome outcome) {
                                end = outcome.end;
                                return take(std::move(outcome), held);
                            });
        tally_.add(held);
        if (end == RunEnd::brokerLost) {
            broker_.reset();
        }
        return done;
    }

    // Whether to go on after the run.
    bool take(CasesOutcome outcome, HeldByName& held) {
        const RunEnd end = outcome.end;
        if (outcome.held) {
            note(held, "module", *outcome.held);
        }
        if (broker_ && end != RunEnd::brokerLost) {
            note(held, "broker", usageOf(broker_->process().pid()));
        }
        const bool passed = tally_.add(std::move(outcome));
        if (end == RunEnd::timeOver || end == RunEnd::signalled || (plan_.untilFail && !passed)) {
            isOver_ = true;
        }
        return !isOver_;
    }

    const RunContext& context_;
    const RepeatPlan& plan_;
    const ModuleRunRequest& request_;
    const std::vector<std::string>& cases_;
    Tally& tally_;
    std::atomic<bool>& isOver_;
    std::optional<OwnBroker> broker_;
};

}  // namespace

RepeatOutcome runRepeatedly(const RunContext& context, const RepeatPlan& plan,
                            const ModuleRunRequest& request, const std::vector<std::string>& cases,
                            const MarkKnownFailures& mark, const RepeatProgress& progress) {
    Tally tally(mark, progress);
    const unsigned jobs = std::min(plan.jobs, plan.runs);
    WorkShare shares(jobs);
    std::atomic<bool> isOver{false};
    shares.runOn(jobs, [&] {
        while (const auto share = shares.take()) {
            ShareOfRuns runs(context, plan, request, cases, tally, isOver);
            runs.run(static_cast<unsigned>(plan.runs * *share / jobs),
                     static_cast<unsigned>(plan.runs * (*share + 1) / jobs));
        }
    });
    RepeatOutcome outcome = tally.result();
    outcome.report.failsOnGrowth = plan.failsOnGrowth;
    return outcome;
}

}  // namespace kavri::conformance
