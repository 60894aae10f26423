// Many runs; see repeats.h.
#include "cli/repeats.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <ostream>
#include <thread>

namespace kavri::cli {

namespace {

namespace fs = std::filesystem;

// What a process holds, in the probe's words.
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

// What all lanes share.
class Tally {
  public:
    Tally(const RepeatPlan& plan, const Repeats::Annotate& annotate,
          const Repeats::Progress& progress)
        : plan_(plan), annotate_(annotate), progress_(progress) {}

    // The number of the next run, from 0; nothing when there is to be none.
    std::optional<unsigned> take() {
        const std::lock_guard lock(mutex_);
        const bool isOver = begun_ == plan_.runs || stopped_;
        return isOver ? std::nullopt : std::optional(begun_++);
    }

    void add(CasesOutcome outcome, pid_t broker) {
        const std::lock_guard lock(mutex_);
        annotate_(outcome.cases);
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
            stopped_ = true;
        }
        stopped_ = stopped_ || (plan_.untilFail && !passed);
        if (!outcome.usage.empty()) {
            note("module", outcome.usage.back());
        }
        if (broker != 0) {
            note("broker", usageOf(broker));
        }
        progress_(result_.report.runs, result_.report.passed);
    }

    void fail(std::exception_ptr failure) {
        const std::lock_guard lock(mutex_);
        failure_ = std::move(failure);
        stopped_ = true;
    }

    RepeatOutcome result() {
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        return std::move(result_);
    }

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

    const RepeatPlan& plan_;
    const Repeats::Annotate& annotate_;
    const Repeats::Progress& progress_;
    std::mutex mutex_;
    unsigned begun_ = 0;
    bool stopped_ = false;
    bool hasFailed_ = false;
    std::exception_ptr failure_;
    RepeatOutcome result_;
};

}  // namespace

RepeatOutcome Repeats::run(const RepeatPlan& plan, const ModuleRunRequest& request,
                           const std::vector<std::string>& cases, const Annotate& annotate,
                           const Progress& progress) {
    Tally tally(plan, annotate, progress);
    const auto runOnce = [&](unsigned number, const fs::path& socket, ChildProcess* broker) {
        std::ostream nowhere(nullptr);
        RunDisplay silent(nowhere, nowhere, DisplayStyle(), cases);
        ModuleRunRequest one = request;
        one.brokerSocket = socket;
        if (plan.shuffle) {
            one.userArguments.push_back(fmt::format("--random={}", *plan.shuffle + number));
        }
        CasesRun run(library_.module(), broker, limits_, silent, patience_);
        tally.add(run.run(one, cases, [](const auto&) {}), broker == nullptr ? 0 : broker->pid());
    };
    const auto lane = [&] {
        try {
            std::optional<OwnBroker> own;
            if (!plan.socket) {
                own.emplace(files_.broker, limits_);
            }
            while (const auto number = tally.take()) {
                runOnce(*number, own ? own->socket() : fs::path(*plan.socket),
                        own ? &own->process() : nullptr);
            }
        } catch (...) {
            tally.fail(std::current_exception());
        }
    };
    {
        std::vector<std::jthread> lanes;
        for (unsigned i = 0; i < std::min(plan.jobs, plan.runs); ++i) {
            lanes.emplace_back(lane);
        }
    }
    return tally.result();
}

}  // namespace kavri::cli
