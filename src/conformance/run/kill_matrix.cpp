// Running the catalogue; see kill_matrix.h.
#include "conformance/run/kill_matrix.h"

#include <fmt/format.h>

#include <algorithm>
#include <mutex>
#include <set>

#include "conformance/run/work_share.h"

namespace kavri::conformance {

namespace {

using Clock = std::chrono::steady_clock;

const CaseReport* caseIn(const std::vector<CaseReport>& cases, std::string_view name) {
    const auto found = std::ranges::find(cases, name, &CaseReport::name);
    return found == cases.end() ? nullptr : &*found;
}

// How a case turned red: by the verdict's name, its record, a warning, or a check that failed.
bool turnedRedBy(const CaseReport& report, std::string_view how) {
    if (how == "record") {
        return report.verdict == Verdict::fail && report.checksFailed() == 0 &&
               !report.missing.empty();
    }
    if (how.starts_with(warningMark)) {
        return std::ranges::find(report.warnings, how.substr(warningMark.size()),
                                 &WarningReport::rule) != report.warnings.end();
    }
    return verdictText(report.verdict) == how ||
           std::ranges::any_of(report.checks, [how](const CheckReport& check) {
               return !check.passed && check.text == how;
           });
}

// Whether the case shows that something is wrong. One that did not pass may have any warnings
// beside what made it fail.
bool isRed(const CaseReport& report) {
    return report.verdict != Verdict::pass || !report.warnings.empty();
}

std::string howRed(const CaseReport& report) {
    std::string how(verdictText(report.verdict));
    std::set<std::string> named;
    for (const CheckReport& check : report.checks) {
        if (!check.passed && named.insert(check.text).second) {
            how += ", " + check.text;
        }
    }
    for (const std::string& line : report.missing) {
        how += ", " + line;
    }
    for (const WarningReport& warning : report.warnings) {
        how += ", " + std::string(warningMark) + warning.rule;
    }
    return how;
}

FaultReport runWithFault(const RunContext& context, const Fault& fault,
                         const std::vector<std::string>& cases) {
    const Clock::time_point begin = Clock::now();
    OwnBroker broker(context.files.broker, context.limits);
    ModuleRunRequest request = context.library.request(broker.socket());
    request.fault = fault.name;
    const CasesOutcome outcome = runUnseen(context, broker.asOtherEnd(), std::move(request), cases);
    if (outcome.end == RunEnd::timeOver || outcome.end == RunEnd::signalled) {
        context.limits.giveUp(fmt::format("during the fault {}", fault.name));
    }
    FaultReport report;
    report.name = fault.name;
    report.description = fault.description;
    report.clause = fault.clause;
    report.unnoticedBecause = fault.survivesBecause;
    report.cases = outcome.cases;
    report.fired = std::ranges::any_of(report.cases,
                                       [](const CaseReport& each) { return !each.faults.empty(); });
    report.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    report.wrong = deviationsFrom(fault, report);
    return report;
}

}  // namespace

MatrixReport runKillMatrix(const RunContext& context, const std::vector<CaseReport>& baseline,
                           unsigned jobs, const MatrixProgress& progress) {
    const Clock::time_point begin = Clock::now();
    const auto faults = faultCatalogue();
    std::vector<std::string> cases(baseline.size());
    std::ranges::transform(baseline, cases.begin(), &CaseReport::name);
    MatrixReport matrix;
    matrix.faults.resize(faults.size());
    std::mutex mutex;
    size_t done = 0;
    WorkShare share(faults.size());
    share.runOn(jobs, [&] {
        while (const auto i = share.take()) {
            FaultReport report = runWithFault(context, faults[*i], cases);
            const std::lock_guard lock(mutex);
            matrix.faults[*i] = std::move(report);
            progress(matrix.faults[*i], ++done, faults.size());
        }
    });
    matrix.checks = checksKilled(baseline, matrix.faults);
    matrix.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    return matrix;
}

std::vector<std::string> deviationsFrom(const Fault& fault, const FaultReport& report) {
    std::vector<std::string> wrong;
    if (!report.fired) {
        wrong.emplace_back("it did not fire");
    }
    for (const Kill& kill : fault.kills) {
        const CaseReport* caseReport = caseIn(report.cases, kill.caseName);
        if (caseReport == nullptr || !turnedRedBy(*caseReport, kill.how)) {
            wrong.push_back(fmt::format("{} did not turn red by {}", kill.caseName, kill.how));
        }
    }
    for (const CaseReport& each : report.cases) {
        const bool mayBeRed = std::ranges::any_of(
            fault.kills, [&each](const Kill& kill) { return kill.caseName == each.name; });
        if (isRed(each) && !mayBeRed) {
            wrong.push_back(fmt::format("{} turned red: {}", each.name, howRed(each)));
        }
    }
    return wrong;
}

std::vector<CheckKilled> checksKilled(const std::vector<CaseReport>& baseline,
                                      const std::vector<FaultReport>& faults) {
    std::vector<CheckKilled> killed;
    const auto entry = [&killed](const std::string& caseName, const std::string& check) -> auto& {
        const auto known = std::ranges::find_if(killed, [&](const CheckKilled& each) {
            return each.caseName == caseName && each.check == check;
        });
        return known != killed.end() ? *known
                                     : killed.emplace_back(CheckKilled{caseName, check, {}});
    };
    for (const CaseReport& each : baseline) {
        for (const CheckReport& check : each.checks) {
            entry(each.name, check.text);
        }
    }
    for (const FaultReport& fault : faults) {
        for (const CaseReport& each : fault.cases) {
            for (const CheckReport& check : each.checks) {
                auto& by = entry(each.name, check.text).faults;
                if (!check.passed && (by.empty() || by.back() != fault.name)) {
                    by.push_back(fault.name);
                }
            }
        }
    }
    return killed;
}

}  // namespace kavri::conformance
