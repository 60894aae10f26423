// One process after the other; see cases_run.h.
#include "cli/cases_run.h"

#include <algorithm>
#include <ostream>

#include "cli/exit_text.h"

namespace kavri::cli {

namespace {

// What the framework returns where it could not begin, say for an argument that it
// does not know, and where checks failed.
constexpr int frameworkRefusal = 200;
constexpr int frameworkFailure = 201;

bool endedInOrder(const ExitState& exit) {
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
    CasesOutcome outcome;
    std::vector<std::string> left = cases;
    while (!left.empty() && runRest(request, left, outcome, progress)) {
    }
    for (const std::string& name : left) {
        outcome.cases.push_back(notRun(name, ""));
    }
    progress(outcome.cases);
    return outcome;
}

// Runs what is left in one process, and takes off what came to a verdict. Whether
// it makes sense to go on.
bool CasesRun::runRest(ModuleRunRequest& request, std::vector<std::string>& left,
                       CasesOutcome& outcome, const Progress& progress) {
    request.cases = left;
    ModuleRun moduleRun(broker_, limits_, display_, patience_, [&](const CaseReport& report) {
        outcome.cases.push_back(report);
        std::erase(left, report.name);
        progress(outcome.cases);
    });
    outcome.end = moduleRun.run(module_, request);
    const RunRecord& record = moduleRun.record();
    for (const std::string& line : record.strayFailures()) {
        display_.showRemark(line);
    }
    const auto& said = moduleRun.brokerLines();
    outcome.brokerLines.assign(said.begin(), said.end());
    outcome.usage.insert(outcome.usage.end(), record.usage().begin(), record.usage().end());
    const ExitState& exit = moduleRun.exit();
    if (record.cases().empty()) {
        outcome.refused = exit.code == frameworkRefusal;
        if (outcome.end == RunEnd::moduleEnded) {
            outcome.cases.push_back(
                notRun(left.front(), "the module " + exitText(exit) + " before the case"));
            left.erase(left.begin());
        }
        return false;
    }
    if (outcome.end == RunEnd::moduleEnded && !endedInOrder(exit) &&
        outcome.cases.back().verdict != Verdict::crash) {
        outcome.cases.back().verdict = Verdict::crash;
        outcome.cases.back().crash = "the module " + exitText(exit) + " after the case";
    }
    return outcome.end == RunEnd::moduleEnded || outcome.end == RunEnd::hung;
}

CasesOutcome runUnseen(const ConformanceModule& module, ChildProcess* broker,
                       const RunLimits& limits, Patience patience, ModuleRunRequest request,
                       const std::vector<std::string>& cases) {
    std::ostream nowhere(nullptr);
    RunDisplay silent(nowhere, nowhere, DisplayStyle(), cases);
    CasesRun run(module, broker, limits, silent, patience);
    return run.run(std::move(request), cases, [](const auto&) {});
}

}  // namespace kavri::cli
