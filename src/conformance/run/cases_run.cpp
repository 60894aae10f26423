// One process of the module after the other; see cases_run.h.
#include "conformance/run/cases_run.h"

#include <algorithm>
#include <utility>

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

// Runs the remaining cases in one process, and removes those that have a verdict. Returns
// whether to go on in another.
bool CasesRun::runRest(ModuleRunRequest& request, Round& round, const Progress& progress,
                       const ModuleRun::RoundEnded& roundEnded) {
    request.cases = round.left;
    ModuleRun moduleRun(
        broker_, limits_, display_, watchdog_,
        [&](const CaseReport& report) {
            round.outcome.cases.push_back(report);
            std::erase(round.left, report.name);
            progress(round.outcome.cases);
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
    const process::ExitState& exit = moduleRun.exit();
    if (record.cases().empty()) {
        outcome.refused = !record.hasEndedCase() && exit.code == frameworkRefusal;
        if (end == RunEnd::moduleEnded) {
            outcome.cases.push_back(notRun(
                round.left.front(), "the module " + process::exitText(exit) + " before the case"));
            round.left.erase(round.left.begin());
        }
        return false;
    }
    if (end == RunEnd::moduleEnded && !endedInOrder(exit) &&
        outcome.cases.back().verdict != Verdict::crash) {
        outcome.cases.back().verdict = Verdict::crash;
        outcome.cases.back().crash = moduleRun.crashText();
        outcome.cases.back().crashStack = moduleRun.crashStack();
    }
    return end == RunEnd::moduleEnded || end == RunEnd::hung;
}

}  // namespace kavri::conformance
