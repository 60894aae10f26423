// One process of the module after the other; see cases_run.h.
#include "conformance/run/cases_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

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
        default:
            return "the module " + process::exitText(exit) + " before the case";
    }
}

// What becomes of the module behind its last case is told with that case. Returns whether
// there was something to tell.
bool CasesRun::blameLastCase(RunEnd end, const process::ExitState& exit, CaseReport& last) const {
    if (end == RunEnd::moduleEnded && !endedInOrder(exit)) {
        last.verdict = Verdict::crash;
        last.crash = "the module " + process::exitText(exit) + " after the case";
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
bool CasesRun::runRest(ModuleRunRequest& request, std::vector<std::string>& left,
                       CasesOutcome& outcome, const Progress& progress) {
    request.cases = left;
    const size_t before = outcome.cases.size();
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
    const bool goesOn = outcome.end == RunEnd::moduleEnded || outcome.end == RunEnd::hung ||
                        outcome.end == RunEnd::channelClosed;
    if (record.cases().empty()) {
        outcome.refused = moduleRun.exit().code == frameworkRefusal;
        if (goesOn) {
            CaseReport& first = outcome.cases.emplace_back(
                notRun(left.front(), whyNoneBegan(outcome.end, moduleRun.exit())));
            first.output = moduleRun.outputOf(first.name);
            left.erase(left.begin());
        }
        return false;
    }
    // What was printed after a case is known only now.
    for (size_t i = before; i < outcome.cases.size(); ++i) {
        outcome.cases[i].output = moduleRun.outputOf(outcome.cases[i].name);
    }
    if (!moduleRun.cutACase() &&
        blameLastCase(outcome.end, moduleRun.exit(), outcome.cases.back())) {
        display_.showCaseEnded(outcome.cases.back());
    }
    return goesOn;
}

}  // namespace kavri::conformance
