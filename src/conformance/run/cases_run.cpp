// One process of the module after the other; see cases_run.h.
#include "conformance/run/cases_run.h"

#include <algorithm>

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

// Runs the remaining cases in one process, and removes those that have a verdict. Returns
// whether to go on in another.
bool CasesRun::runRest(ModuleRunRequest& request, std::vector<std::string>& left,
                       CasesOutcome& outcome, const Progress& progress) {
    request.cases = left;
    ModuleRun moduleRun(broker_, limits_, display_, watchdog_, [&](const CaseReport& report) {
        outcome.cases.push_back(report);
        std::erase(left, report.name);
        progress(outcome.cases);
        display_.showCaseEnded(outcome.cases.back());
    });
    outcome.end = moduleRun.run(module_, request);
    const RunRecord& record = moduleRun.record();
    for (const std::string& line : record.strayFailures()) {
        display_.showRemark(line);
    }
    const auto& said = moduleRun.brokerLines();
    outcome.brokerLines.assign(said.begin(), said.end());
    outcome.usage.insert(outcome.usage.end(), record.usage().begin(), record.usage().end());
    const process::ExitState& exit = moduleRun.exit();
    if (record.cases().empty()) {
        outcome.refused = exit.code == frameworkRefusal;
        if (outcome.end == RunEnd::moduleEnded) {
            outcome.cases.push_back(
                notRun(left.front(), "the module " + process::exitText(exit) + " before the case"));
            left.erase(left.begin());
        }
        return false;
    }
    if (outcome.end == RunEnd::moduleEnded && !endedInOrder(exit) &&
        outcome.cases.back().verdict != Verdict::crash) {
        outcome.cases.back().verdict = Verdict::crash;
        outcome.cases.back().crash = "the module " + process::exitText(exit) + " after the case";
    }
    return outcome.end == RunEnd::moduleEnded || outcome.end == RunEnd::hung;
}

}  // namespace kavri::conformance
