// One process of the module after the other; see cases_run.h.
#include "conformance/run/cases_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "conformance/module/post_mortem.h"
#include "process/exit_text.h"

namespace kavri::conformance {

namespace {

// The exit statuses of the framework: for an argument that it does not know, and where
// checks failed.
constexpr int frameworkRefusal = 200;
constexpr int frameworkFailure = 201;

bool endedInOrder(const process::ExitState& exit) {
    return exit.signal == 0 && (exit.code == 0 || exit.code == frameworkFailure);
}

CaseReport notRun(const std::string& name, const std::string& why) {
    CaseReport report;
    report.name = name;
    report.level = levelText(levelOf(name));
    if (!why.empty()) {
        report.missing.push_back(why);
    }
    return report;
}

}  // namespace

CasesOutcome CasesRun::run(ModuleRunRequest request, const std::vector<std::string>& cases,
                           const Progress& progress) {
    CasesOutcome only;
    request.rounds = 1;
    runRounds(std::move(request), cases, progress, [&only](CasesOutcome outcome) {
        only = std::move(outcome);
        return true;
    });
    return only;
}

unsigned CasesRun::runRounds(ModuleRunRequest request, const std::vector<std::string>& cases,
                             const Progress& progress, const TakeRound& takeRound) {
    unsigned done = 0;
    Round round{{}, cases};
    // All but the last round end while their process goes on.
    const auto roundEnded = [&](unsigned number, const nlohmann::json& held) {
        round.outcome.held = held;
        if (number == request.rounds) {
            return true;
        }
        ++done;
        return takeRound(std::exchange(round, Round{{}, cases}).outcome);
    };
    bool goesOn = runRest(request, round, progress, roundEnded);
    const auto ignored = [](unsigned, const nlohmann::json&) { return true; };
    while (goesOn && !round.left.empty()) {
        request.rounds = 1;
        goesOn = runRest(request, round, progress, ignored);
    }
    if (round.outcome.end == RunEnd::stopped) {
        return done;
    }
    for (const std::string& name : round.left) {
        round.outcome.cases.push_back(notRun(name, ""));
    }
    progress(round.outcome.cases);
    takeRound(std::move(round.outcome));
    return done + 1;
}

std::string CasesRun::standstillText() const {
    return fmt::format("did nothing for {:.1f} s",
                       std::chrono::duration<double>(watchdog_.silenceLimit()).count());
}

// Why a process of the module came to none of its cases.
std::string CasesRun::whyNoneBegan(RunEnd end, const process::ExitState& exit) const {
    switch (end) {
        case RunEnd::hung:
            return fmt::format(
                "the module {} before the case; does the core library hang when it is loaded?",
                standstillText());
        case RunEnd::channelClosed:
            return closedChannelText + " before the case";
        case RunEnd::moduleEnded:
            if (endedInOrder(exit)) {
                return "the module ended without a word to the kit; does the core library close "
                       "descriptors that are not its own when it is loaded?";
            }
            [[fallthrough]];
        default:
            return "the module " + process::exitText(exit) + " before the case";
    }
}

// What becomes of the module behind its last case is told with that case. Returns whether
// there was something to tell.
bool CasesRun::blameLastCase(const ModuleRun& run, RunEnd end, CaseReport& last) const {
    if (end == RunEnd::moduleEnded && !endedInOrder(run.exit())) {
        last.verdict = Verdict::crash;
        last.crash = crashText(run.record(), run.exit());
        last.crashStack = crashStack(run.record());
    } else if (end == RunEnd::hung) {
        last.verdict = Verdict::timeout;
        last.missing.push_back(
            fmt::format("the module {} after the case; does the core library hang when it is "
                        "unloaded?",
                        standstillText()));
    } else if (end == RunEnd::channelClosed) {
        last.verdict = Verdict::fail;
        last.missing.push_back(closedChannelText + " after the case");
    } else {
        return false;
    }
    return true;
}

// Runs the remaining cases in one process, and removes those that have a verdict. Returns
// whether to go on in another.
bool CasesRun::runRest(ModuleRunRequest& request, Round& round, const Progress& progress,
                       const ModuleRun::RoundEnded& roundEnded) {
    request.cases = round.left;
    ModuleRun moduleRun(
        otherEnd_, limits_, display_, watchdog_,
        [&](const CaseReport& report) {
            round.outcome.cases.push_back(report);
            std::erase(round.left, report.name);
            progress(round.outcome.cases);
            display_.showCaseEnded(round.outcome.cases.back());
        },
        roundEnded);
    const RunEnd end = moduleRun.run(module_, request);
    CasesOutcome& outcome = round.outcome;  // of the round in which the process ended
    outcome.end = end;
    const RunRecord& record = moduleRun.record();
    for (const std::string& line : record.strayFailures()) {
        display_.showRemark(line);
    }
    const auto& said = moduleRun.brokerLines();
    outcome.brokerLines.assign(said.begin(), said.end());
    if (end == RunEnd::stopped) {
        return false;
    }
    const bool goesOn = letsAnotherRun(end);
    if (record.cases().empty()) {
        outcome.refused = !record.hasEndedCase() && moduleRun.exit().code == frameworkRefusal;
        if (goesOn) {
            CaseReport& first = outcome.cases.emplace_back(
                notRun(round.left.front(), whyNoneBegan(end, moduleRun.exit())));
            first.output = moduleRun.output().of(first.name);
            round.left.erase(round.left.begin());
        }
        return false;
    }
    // What was printed after a case is known only now.
    for (CaseReport& each : outcome.cases) {
        if (const std::string printed = moduleRun.output().of(each.name); !printed.empty()) {
            each.output = printed;
        }
    }
    if (!moduleRun.cutACase() && blameLastCase(moduleRun, end, outcome.cases.back())) {
        display_.showCaseEnded(outcome.cases.back());
    }
    return goesOn;
}

}  // namespace kavri::conformance
