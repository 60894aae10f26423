// Runs on several threads, and the sum of them; see repeats.h.
#include "conformance/run/repeats.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <mutex>

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

// The results of all runs, for all threads.
class Tally {
  public:
    Tally(const MarkKnownFailures& mark, const RepeatProgress& progress)
        : mark_(mark), progress_(progress) {}

    // Whether the run passed.
    bool add(CasesOutcome outcome, pid_t broker) {
        const std::lock_guard lock(mutex_);
        mark_(outcome.cases);
        addLatencies(outcome.cases, result_.report.latencies);
        const bool passed =
            outcome.end == RunEnd::moduleEnded && worstOf(outcome.cases) == Verdict::pass;
        ++result_.report.runs;
        result_.report.passed += passed ? 1 : 0;
        if (!hasFailed_) {  // the first that did not pass is kept
            result_.cases = outcome.cases;
        }
        hasFailed_ = hasFailed_ || !passed;
        if (outcome.end == RunEnd::timeOver || outcome.end == RunEnd::signalled) {
            result_.end = outcome.end;
        }
        if (!outcome.usage.empty()) {
            note("module", outcome.usage.back());
        }
        if (broker != 0) {
            note("broker", usageOf(broker));
        }
        progress_(result_.report.runs, result_.report.passed);
        return passed;
    }

    RepeatOutcome result() { return std::move(result_); }

  private:
    void note(const std::string& whose, const nlohmann::json& usage) {
        for (const auto& [what, value] : usage.items()) {
            const std::string name = fmt::format("{}, {}", whose, what);
            auto& all = result_.report.growth;
            auto known = std::ranges::find(all, name, &RepeatReport::Growth::what);
            const auto number = value.get<double>();
            if (known == all.end()) {
                all.push_back({name, number, number, number});
            } else {
                known->last = number;
                known->most = std::max(known->most, number);
            }
        }
    }

    const MarkKnownFailures& mark_;
    const RepeatProgress& progress_;
    std::mutex mutex_;
    bool hasFailed_ = false;
    RepeatOutcome result_;
};

}  // namespace

RepeatOutcome runRepeatedly(const RunContext& context, const RepeatPlan& plan,
                            const ModuleRunRequest& request, const std::vector<std::string>& cases,
                            const MarkKnownFailures& mark, const RepeatProgress& progress) {
    Tally tally(mark, progress);
    WorkShare share(plan.runs);
    const auto runOnce = [&](size_t number, ModuleRunRequest one, const OtherEnd& otherEnd) {
        if (plan.shuffle) {
            one.userArguments.push_back(fmt::format("--random={}", *plan.shuffle + number));
        }
        CasesOutcome outcome = runUnseen(context, otherEnd, std::move(one), cases);
        const RunEnd end = outcome.end;
        const bool hasBroker = otherEnd.broker != nullptr && end != RunEnd::brokerLost;
        const bool passed = tally.add(std::move(outcome), hasBroker ? otherEnd.broker->pid() : 0);
        if (end == RunEnd::timeOver || end == RunEnd::signalled || (plan.untilFail && !passed)) {
            share.stop();
        }
        return end;
    };
    share.runOn(std::min(plan.jobs, plan.runs), [&] {
        std::optional<OwnBroker> own;
        while (const auto number = share.take()) {
            if (plan.otherEnd) {
                runOnce(*number, request, *plan.otherEnd);
                continue;
            }
            if (!own) {
                own.emplace(context.files.broker, context.limits);
            }
            ModuleRunRequest one = request;
            one.brokerSocket = own->socket();
            if (runOnce(*number, std::move(one), own->asOtherEnd()) == RunEnd::brokerLost) {
                own.reset();
            }
        }
    });
    return tally.result();
}

}  // namespace kavri::conformance
