// The steps of a run; see conformance_run.h.
#include "conformance/run/conformance_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <filesystem>
#include <iostream>

#include "base/printable.h"
#include "conformance/cases/case_listing.h"
#include "conformance/cases/expectation_list.h"
#include "conformance/faults/fault_catalogue.h"
#include "conformance/module/module_arguments.h"
#include "conformance/module/preflight.h"
#include "conformance/report/whole_file.h"
#include "conformance/run/kill_matrix.h"
#include "conformance/run/opening_report.h"
#include "conformance/run/repeat_command.h"
#include "conformance/run/repeats.h"
#include "conformance/run/run_result.h"
#include "process/exit_text.h"
#include "process/temporary_folder.h"

namespace kavri::conformance {

namespace {

using std::chrono::milliseconds;

// With a fault, only a call that never returns takes long.
constexpr milliseconds proofCallLimit{800};

double secondsSince(RunLimits::Clock::time_point begin) {
    return std::chrono::duration<double>(RunLimits::Clock::now() - begin).count();
}

void throwIfNotWritten(const std::string& complaint) {
    if (!complaint.empty()) {
        throw process::CommandFailure(process::ExitStatus::couldNotRun, complaint);
    }
}

}  // namespace

process::ExitStatus ConformanceRun::run() {
    assert(!reportFiles_);  // runs once
    process::removeAbandonedFolders();
    report_ = openingReport(plan_);
    reportFiles_.emplace(plan_.reports, report_);
    try {
        prepare();
        runLibraries();
    } catch (const std::exception& error) {
        noteWhyIncomplete(report_, error.what());
        finishFiles();
        throw;
    }
    return judge();
}

// What does not depend on the library: whatever can be known to be wrong is found out
// before anything is started.
void ConformanceRun::prepare() {
    checkModuleArguments(plan_.moduleArguments);
    readEarlierResults();
    files_ = KitFiles::find();
    if (!plan_.serviceRecord.empty()) {
        evidence_.emplace(std::filesystem::path(plan_.serviceRecord));
    }
    if (plan_.socket) {
        checkBrokerListens(*plan_.socket);
        checkTestService(*plan_.socket, evidence_ ? &*evidence_ : nullptr, limits_);
    }
}

// A library that cannot be run, or not to the end, does not keep the others from it.
void ConformanceRun::runLibraries() {
    for (current_ = 0; current_ < report_.libraries.size(); ++current_) {
        try {
            runLibrary();
        } catch (const process::CommandFailure& failure) {
            if (failure.status() == process::ExitStatus::ended) {
                throw;
            }
            if (!report().reason.empty()) {
                report().reason = failure.what();
            }
            failure_ = failure_.value_or(failure.status());
            std::cerr << "kavri conformance: " << failure.what() << std::endl;
        }
    }
}

// Known failures, their next list, and the baseline: what is wrong with their files.
void ConformanceRun::readEarlierResults() {
    if (!plan_.expectations.empty()) {
        expectations_ = Expectations::read(plan_.expectations);
    }
    if (!plan_.baseline.empty()) {
        baseline_ = Baseline::read(plan_.baseline);
    }
    if (!plan_.writtenExpectations.empty()) {
        throwIfNotWritten(whyNotWritable(plan_.writtenExpectations));
    }
}

void ConformanceRun::compareWithBaseline() {
    if (!baseline_) {
        return;
    }
    report_.baseline = baseline_->compare(report_, [this](const std::string& name) {
        return isSelected(name, plan_.casePatterns) && levelOf(name) >= plan_.level;
    });
    for (const std::string& line : comparisonLines(*report_.baseline)) {
        std::cout << fitted(line, DisplayStyle::ofStandardOutput()) << '\n';
    }
    std::cout << std::flush;
}

// Of the library under test; none: the module finds it by itself.
std::optional<std::string> ConformanceRun::folder() const {
    return plan_.libraries.empty() ? std::nullopt : std::optional(plan_.libraries[current_]);
}

// The broker and service that are there already.
OtherEnd ConformanceRun::foreignEnd() {
    return {nullptr, evidence_ ? &*evidence_ : nullptr, plan_.strict};
}

WatchdogSettings ConformanceRun::watchdog() const {
    return {milliseconds(static_cast<long>(plan_.callTimeoutSeconds * plan_.timeScale * 1000)),
            true};
}

ModuleRunRequest ConformanceRun::requestFor(const LibraryRun& library,
                                            const std::filesystem::path& socket) const {
    ModuleRunRequest request = library.request(socket);
    request.userArguments = plan_.moduleArguments;
    request.fault = plan_.fault;
    request.warningsFail = plan_.strict;
    request.level = plan_.level;
    return request;
}

void ConformanceRun::runLibrary() {
    const LibraryRun library(files_, folder(), limits_);
    const std::vector<std::string> cases =
        atLevel(library.select(plan_.casePatterns, limits_, watchdog().callLimit), plan_.level);
    RunDisplay display(std::cout, std::cerr, DisplayStyle::ofStandardOutput(), cases);
    report().core = library.core();
    report().cases.resize(cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        report().cases[i].name = cases[i];
        report().cases[i].level = levelText(levelOf(cases[i]));
    }
    if (plan_.repeat) {
        repeat(library, cases, display);
    } else {
        runOnce(library, cases, display);
    }
    if (const std::string why = whyNotRun(report()); !why.empty()) {
        throw process::CommandFailure(process::ExitStatus::couldNotRun, why);
    }
    report().reason.clear();
    display.showConfirmation(report());
    if (plan_.proves) {
        prove(library, display);
    }
}

// `cases`: those that have ended. Completes them.
void ConformanceRun::addToReport(std::vector<CaseReport>& cases) {
    expectations_.apply(cases);
    for (CaseReport& ended : cases) {
        ended.repeat = repeatCommand(plan_, folder(), ended.name);
        *std::ranges::find(report().cases, ended.name, &CaseReport::name) = ended;
    }
    report().seconds = secondsSince(casesBegun_);
    writeFiles();
}

void ConformanceRun::writeFiles() {
    report_.seconds = secondsSince(begun_);
    reportFiles_->update(report_);
}

void ConformanceRun::finishFiles() {
    report_.seconds = secondsSince(begun_);
    reportFiles_->finish(report_);
}

void ConformanceRun::runOnce(const LibraryRun& library, const std::vector<std::string>& cases,
                             RunDisplay& display) {
    std::optional<OwnBroker> own;
    if (plan_.startsBrokers()) {
        own.emplace(files_.broker, limits_);
    }
    display.showOpening(report().core, report().broker);
    const ModuleRunRequest request =
        requestFor(library, own ? own->socket() : std::filesystem::path(plan_.socket.value_or("")));
    casesBegun_ = Clock::now();
    CasesRun run(library.module(), own ? own->asOtherEnd() : foreignEnd(), limits_, display,
                 watchdog());
    const CasesOutcome outcome = run.run(request, cases, [&](auto& soFar) { addToReport(soFar); });
    if (worstOf(outcome.cases) != Verdict::pass) {
        for (const std::string& line : outcome.brokerLines) {
            display.showForeignLine(line);
        }
    }
    display.showFailed(report().cases);
    display.showClosing(report().cases, report().seconds);
    if (own && !own->evidence().hasSeenRequests()) {
        display.showRemark(
            "nothing reached the kit's broker; a library that brings its own is "
            "run with --own-broker");
    }
    throwUnlessEnded(outcome, own ? own->process().wait(milliseconds(0)) : std::nullopt);
}

// Throws CommandFailure where the run ended before its cases had.
void ConformanceRun::throwUnlessEnded(const CasesOutcome& outcome,
                                      const std::optional<process::ExitState>& brokerExit) const {
    if (outcome.refused) {
        throw process::CommandFailure(plan_.moduleArguments.empty()
                                          ? process::ExitStatus::couldNotRun
                                          : process::ExitStatus::usage,
                                      "the module refused to run, for the reason above");
    }
    if (letsAnotherRun(outcome.end)) {
        return;
    }
    const auto cut = std::ranges::find_if(outcome.cases, [](const CaseReport& report) {
        return report.verdict != Verdict::pass && report.verdict != Verdict::fail;
    });
    std::string place = cut == outcome.cases.end() ? "after the last case" : "in " + cut->name;
    if (cut != outcome.cases.end() && cut->hang) {
        place += "; " + base::printable(hangText(*cut->hang));
    }
    if (outcome.end == RunEnd::brokerLost) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("the broker {} {}",
                        process::exitText(brokerExit.value_or(process::ExitState{})), place));
    }
    limits_.giveUp(place);
}

void ConformanceRun::repeat(const LibraryRun& library, const std::vector<std::string>& cases,
                            RunDisplay& display) {
    display.showOpening(report().core,
                        plan_.startsBrokers() ? "brokers of its own" : report().broker);
    const ModuleRunRequest request = requestFor(library, plan_.socket.value_or(""));
    const RepeatPlan repeatPlan{
        .runs = *plan_.repeat,
        .untilFail = plan_.untilFail,
        .shuffle = plan_.shuffle,
        .jobs = plan_.repeatJobs(),
        .failsOnGrowth = plan_.failsOnLeaks,
        .otherEnd = plan_.startsBrokers() ? std::nullopt : std::optional(foreignEnd())};
    casesBegun_ = Clock::now();
    RepeatOutcome outcome = runRepeatedly(
        {files_, library, limits_, watchdog()}, repeatPlan, request, cases,
        [this](auto& ended) { expectations_.apply(ended); },
        [&](unsigned done, unsigned passed) {
            display.showProgress(fmt::format("runs, {} passed", passed), done, repeatPlan.runs);
        });
    report().repeats = outcome.report;
    addToReport(outcome.cases);
    for (const CaseReport& each : report().cases) {
        if (each.verdict != Verdict::pass) {
            display.showCaseEnded(each);
        }
    }
    display.showFailed(report().cases);
    display.showRepeats(outcome.report, report().seconds);
    if (outcome.end != RunEnd::moduleEnded) {
        limits_.giveUp(fmt::format("after {} runs", outcome.report.runs));
    }
}

void ConformanceRun::prove(const LibraryRun& library, RunDisplay& display) {
    const std::vector<CaseReport>& baseline = report().cases;
    if (worstOf(baseline) != Verdict::pass) {
        throw process::CommandFailure(process::ExitStatus::failed,
                                      "--prove needs a library with which all cases pass; mend "
                                      "what fails without a fault first");
    }
    const WatchdogSettings watchdog{
        std::chrono::duration_cast<milliseconds>(proofCallLimit * plan_.timeScale), false};
    report_.matrix =
        runKillMatrix({files_, library, limits_, watchdog}, baseline,
                      plan_.jobsFor(static_cast<unsigned>(faultCatalogue().size())),
                      [&display](const FaultReport& fault, size_t done, size_t all) {
                          for (const std::string& line : fault.wrong) {
                              display.showRemark(fmt::format("{}: {}", fault.name, line));
                          }
                          display.showProgress("faults", done, all);
                      });
    display.showMatrix(*report_.matrix);
    writeFiles();
}

process::ExitStatus ConformanceRun::judge() {
    const auto incomplete = std::ranges::find_if(
        report_.libraries, [](const LibraryReport& each) { return !each.reason.empty(); });
    report_.reason = incomplete == report_.libraries.end() ? "" : incomplete->reason;
    report_.complaints = expectations_.complaints();
    compareWithBaseline();
    finishFiles();
    if (!plan_.writtenExpectations.empty() && report_.reason.empty()) {
        throwIfNotWritten(
            writeWholeFile(plan_.writtenExpectations, expectationList(report_, expectations_)));
    }
    const process::ExitStatus status = exitStatusOf(report_, failure_);
    for (const std::string& complaint : report_.complaints) {
        std::cerr << "kavri conformance: " << complaint << std::endl;
    }
    if (!reportFiles_->complaint().empty()) {
        throw process::CommandFailure(
            status == process::ExitStatus::passed ? process::ExitStatus::couldNotRun : status,
            reportFiles_->complaint());
    }
    if (status == process::ExitStatus::ended) {
        throw process::CommandFailure(status, base::printable(cutOffText(report_)));
    }
    return status;
}

}  // namespace kavri::conformance
