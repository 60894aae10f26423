// From the options to the exit status; see conformance_command.h. What can be
// known to be wrong is found out before the broker is started and any case runs.
#include "cli/conformance_command.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <kavri/ipc.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <thread>

#include "cli/broker_access.h"
#include "cli/cases_run.h"
#include "cli/exit_text.h"
#include "cli/expectations.h"
#include "cli/explanations.h"
#include "cli/kill_matrix.h"
#include "cli/library_run.h"
#include "cli/module_arguments.h"
#include "cli/orphans.h"
#include "cli/repeats.h"
#include "cli/run_display.h"
#include "cli/stop_signals.h"

namespace kavri::cli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// With a fault, no call takes long but one that does not return.
constexpr std::chrono::milliseconds matrixCallTime{800};

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string dateText() {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr)));
}

// A word of a command line as a shell takes it.
std::string quoted(const std::string& word) {
    const bool isPlain = word.find_first_not_of(
                             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                             "0123456789-_./=,:") == std::string::npos;
    if (isPlain && !word.empty()) {
        return word;
    }
    std::string result = "'";
    for (const char c : word) {
        result += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return result + "'";
}

ExitStatus statusFor(Verdict verdict) {
    switch (verdict) {
        case Verdict::pass:
            return ExitStatus::passed;
        case Verdict::fail:
            return ExitStatus::failed;
        case Verdict::notRun:
        case Verdict::harnessError:
            return ExitStatus::couldNotRun;
        case Verdict::timeout:
        case Verdict::crash:
            break;
    }
    return ExitStatus::ended;
}

// The first case that was cut off, and why.
std::string cutOffText(const Report& report) {
    for (const LibraryReport& library : report.libraries) {
        for (const CaseReport& each : library.cases) {
            if (each.known.empty() && (each.hang || !each.crash.empty())) {
                return fmt::format("{}: {}", each.name,
                                   each.hang ? hangText(*each.hang) : each.crash);
            }
        }
    }
    return "";
}

// That the broker says hello, where it is our own library that will be asked: another
// one may speak another language with its broker.
void checkBrokerAnswers(const std::string& socket) {
    kavri_core_ipc_options options{};
    options.sizeBytes = sizeof options;
    options.brokerAddress = socket.c_str();
    options.connectTimeoutMs = 2000;
    kavri_core_ipc_initiator* initiator = nullptr;
    kavri_core_init();
    const kavri_core_status status = kavri_core_ipc_initiator_init(nullptr, &options, &initiator);
    if (initiator != nullptr) {
        kavri_core_ipc_deinit(initiator);
    }
    kavri_core_deinit();
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        throw CommandFailure(ExitStatus::couldNotRun,
                             fmt::format("the broker at {} does not serve: {}; is it stopped, or "
                                         "another program?",
                                         socket, kavri_core_status_text(status)));
    }
}

void showRepeats(const RepeatReport& repeats, double seconds, RunDisplay& display) {
    const auto us = [](const Latencies& times, double share) {
        return std::chrono::duration<double, std::micro>(times.percentile(share)).count();
    };
    for (const auto& [function, times] : repeats.latencies) {
        display.showRemark(fmt::format("{:<52}  {:>8} calls  p50 {:>9.1f} us  p99 {:>9.1f} us",
                                       function, times.count(), us(times, 0.5), us(times, 0.99)));
    }
    for (const RepeatReport::Growth& growth : repeats.growth) {
        display.showRemark(fmt::format("{:<24}  {:>8} first  {:>8} last  {:>8} most", growth.what,
                                       growth.first, growth.last, growth.most));
    }
    display.showRemark(
        fmt::format("{} runs, {} passed; {}", repeats.runs, repeats.passed, durationText(seconds)));
}

void showMatrix(const MatrixReport& matrix, RunDisplay& display) {
    for (const CheckKilled& check : matrix.checks) {
        if (check.faults.empty()) {
            display.showRemark(
                fmt::format("{}: no fault turns red: {}", check.caseName, check.check));
        }
    }
    const auto unnoticed = std::ranges::count_if(
        matrix.faults, [](const FaultReport& fault) { return !fault.unnoticedBecause.empty(); });
    const auto wrong = std::ranges::count_if(
        matrix.faults, [](const FaultReport& fault) { return !fault.asExpected(); });
    const auto alive = std::ranges::count_if(
        matrix.checks, [](const CheckKilled& check) { return check.faults.empty(); });
    display.showRemark(fmt::format(
        "{} faults, {} noticed as they must be, {} that no case can see, {} not as expected; "
        "{} checks, {} turned red; {}",
        matrix.faults.size(), static_cast<long>(matrix.faults.size()) - unnoticed - wrong,
        unnoticed, wrong, matrix.checks.size(), static_cast<long>(matrix.checks.size()) - alive,
        durationText(matrix.seconds)));
}

// One run of the command.
class Conformance {
  public:
    Conformance(const RunLimits& limits, const ConformanceOptions& options)
        : limits_(limits), options_(options), begun_(Clock::now()) {}

    ExitStatus run();

  private:
    Report openingReport() const;
    std::string commandFor(const std::string& library, const std::string& caseName) const;
    Patience patience() const;
    void runLibrary(const std::optional<std::string>& folder);
    void runOnce(const LibraryRun& library, const std::vector<std::string>& cases,
                 RunDisplay& display);
    void runOften(const LibraryRun& library, const std::vector<std::string>& cases,
                  RunDisplay& display);
    void prove(const LibraryRun& library, RunDisplay& display);
    void keep(LibraryReport& report, const std::vector<CaseReport>& cases);
    void writeFiles();
    void annotate(std::vector<CaseReport>& cases);
    void conclude(const CasesOutcome& outcome, const std::optional<ExitState>& brokerExit);
    ExitStatus judge();
    unsigned jobs(unsigned most) const;

    const RunLimits& limits_;
    const ConformanceOptions& options_;
    const Clock::time_point begun_;
    Clock::time_point casesBegun_;  // of the library that is under way
    KitFiles files_;
    Report report_;
    std::optional<ReportFiles> reportFiles_;
    std::optional<Expectations> expectations_;
};

ExitStatus Conformance::run() {
    checkModuleArguments(options_.moduleArguments);
    if (options_.socket) {
        checkBrokerListens(*options_.socket);
        if (options_.libraries.empty()) {
            checkBrokerAnswers(*options_.socket);
        }
    }
    if (!options_.expectations.empty()) {
        expectations_ = Expectations::read(options_.expectations);
    }
    files_ = KitFiles::find();
    report_ = openingReport();
    reportFiles_.emplace(options_.reports, report_);
    if (options_.libraries.empty()) {
        runLibrary(std::nullopt);
    }
    for (const std::string& folder : options_.libraries) {
        runLibrary(folder);
    }
    return judge();
}

Report Conformance::openingReport() const {
    Report report;
    report.command = "kavri";
    for (const std::string& word : options_.invocation) {
        report.command += " " + quoted(word);
    }
    report.date = dateText();
    report.tool = "kavri " KAVRI_VERSION;
    return report;
}

// The command that runs one case again.
std::string Conformance::commandFor(const std::string& library, const std::string& caseName) const {
    std::vector<std::string> words = {"kavri", "conformance"};
    const auto add = [&words](const char* option, const std::string& value) {
        words.emplace_back(option);
        words.push_back(quoted(value));
    };
    if (options_.socket) {
        add("--socket", *options_.socket);
    }
    if (!options_.fault.empty()) {
        add("--fault", options_.fault);
    }
    if (!options_.libraries.empty()) {
        add("--library", library);
    }
    add("--case", caseName);
    return fmt::format("{}", fmt::join(words, " "));
}

Patience Conformance::patience() const {
    return {std::chrono::milliseconds(
                static_cast<long>(options_.callTimeoutSeconds * options_.timeScale * 1000)),
            true};
}

unsigned Conformance::jobs(unsigned most) const {
    // The cases mostly sleep.
    const unsigned usual = 4 * std::max(1U, std::thread::hardware_concurrency());
    return std::min(options_.jobs == 0 ? usual : options_.jobs, most);
}

void Conformance::runLibrary(const std::optional<std::string>& folder) {
    const LibraryRun library(files_, folder, limits_);
    const std::vector<std::string> cases = library.select(options_.casePatterns, limits_);
    RunDisplay display(std::cout, std::cerr, DisplayStyle::ofStandardOutput(), cases);
    LibraryReport& report = report_.libraries.emplace_back();
    report.name = library.name();
    report.core = library.core();
    report.broker = options_.socket ? "broker at " + *options_.socket : "broker of its own";
    if (options_.repeat) {
        runOften(library, cases, display);
    } else {
        runOnce(library, cases, display);
    }
    if (options_.proves) {
        prove(library, display);
    }
}

// Puts the cases into the report, with what is known about them beside the run.
void Conformance::keep(LibraryReport& report, const std::vector<CaseReport>& cases) {
    report.cases = cases;
    annotate(report.cases);
    for (CaseReport& each : report.cases) {
        each.repeat = commandFor(report.name, each.name);
    }
    report.seconds = secondsSince(casesBegun_);
    writeFiles();
}

void Conformance::writeFiles() {
    report_.seconds = secondsSince(begun_);
    reportFiles_->update(report_);
}

// Notes which failures are known.
void Conformance::annotate(std::vector<CaseReport>& cases) {
    if (expectations_) {
        expectations_->apply(cases);
    }
}

void Conformance::runOnce(const LibraryRun& library, const std::vector<std::string>& cases,
                          RunDisplay& display) {
    LibraryReport& report = report_.libraries.back();
    std::optional<OwnBroker> own;
    if (!options_.socket) {
        own.emplace(files_.broker, limits_);
    }
    display.showOpening(report.core, report.broker);
    ModuleRunRequest request = library.request(own ? own->socket() : fs::path(*options_.socket));
    request.userArguments = options_.moduleArguments;
    request.fault = options_.fault;
    casesBegun_ = Clock::now();
    CasesRun run(library.module(), own ? &own->process() : nullptr, limits_, display, patience());
    const CasesOutcome outcome =
        run.run(request, cases, [&](const auto& soFar) { keep(report, soFar); });
    if (worstOf(outcome.cases) != Verdict::pass) {
        for (const std::string& line : outcome.brokerLines) {
            display.showOthersLine(line);
        }
    }
    display.showClosing(report.cases, report.seconds);
    conclude(outcome, own ? own->process().wait(std::chrono::milliseconds(0)) : std::nullopt);
}

// What makes it pointless to go on with anything else.
void Conformance::conclude(const CasesOutcome& outcome,
                           const std::optional<ExitState>& brokerExit) {
    if (outcome.refused) {
        throw CommandFailure(
            options_.moduleArguments.empty() ? ExitStatus::couldNotRun : ExitStatus::usage,
            "the module refused to run; the reason stands above");
    }
    if (outcome.end == RunEnd::moduleEnded || outcome.end == RunEnd::hung) {
        return;
    }
    const auto cut = std::ranges::find_if(outcome.cases, [](const CaseReport& report) {
        return report.verdict != Verdict::pass && report.verdict != Verdict::fail;
    });
    std::string place = cut == outcome.cases.end() ? "after the last case" : "in " + cut->name;
    if (cut != outcome.cases.end() && cut->hang) {
        place += "; " + printable(hangText(*cut->hang));
    }
    if (outcome.end == RunEnd::brokerLost) {
        throw CommandFailure(
            ExitStatus::couldNotRun,
            fmt::format("the broker {} {}", exitText(brokerExit.value_or(ExitState{})), place));
    }
    limits_.giveUp(place);
}

void Conformance::runOften(const LibraryRun& library, const std::vector<std::string>& cases,
                           RunDisplay& display) {
    LibraryReport& report = report_.libraries.back();
    display.showOpening(report.core, options_.socket ? report.broker : "brokers of its own");
    ModuleRunRequest request = library.request({});
    request.userArguments = options_.moduleArguments;
    request.fault = options_.fault;
    RepeatPlan plan{.runs = *options_.repeat,
                    .untilFail = options_.untilFail,
                    .shuffle = options_.shuffle,
                    .jobs = options_.socket ? 1 : jobs(*options_.repeat),
                    .socket = options_.socket};
    casesBegun_ = Clock::now();
    Repeats repeats(files_, library, limits_, patience());
    const RepeatOutcome outcome = repeats.run(
        plan, request, cases, [this](auto& ended) { annotate(ended); },
        [&](unsigned done, unsigned passed) {
            display.showProgress(fmt::format("runs, {} passed", passed), done, plan.runs);
        });
    report_.repeats = outcome.report;
    keep(report, outcome.cases);
    for (const CaseReport& each : report.cases) {
        if (each.verdict != Verdict::pass) {
            display.showCaseEnded(each);
        }
    }
    showRepeats(outcome.report, report.seconds, display);
    if (outcome.end != RunEnd::moduleEnded) {
        limits_.giveUp(fmt::format("after {} runs", outcome.report.runs));
    }
}

void Conformance::prove(const LibraryRun& library, RunDisplay& display) {
    const std::vector<CaseReport>& baseline = report_.libraries.back().cases;
    if (worstOf(baseline) != Verdict::pass) {
        throw CommandFailure(ExitStatus::failed,
                             "the cases do not all pass without a fault, which is to be mended "
                             "before anything can be proven");
    }
    const Patience patience{
        std::chrono::duration_cast<std::chrono::milliseconds>(matrixCallTime * options_.timeScale),
        false};
    KillMatrix matrix(files_, library, limits_, patience);
    report_.matrix = matrix.run(baseline, jobs(static_cast<unsigned>(probe::faults().size())),
                                [&display](const FaultReport& fault, size_t done, size_t all) {
                                    for (const std::string& line : fault.wrong) {
                                        display.showRemark(fmt::format("{}: {}", fault.name, line));
                                    }
                                    display.showProgress("faults", done, all);
                                });
    showMatrix(*report_.matrix, display);
    writeFiles();
}

// The verdict on all that was run, and the line that goes with it.
ExitStatus Conformance::judge() {
    ExitStatus status = statusFor(verdictOn(report_));
    const std::vector<std::string> complaints =
        expectations_ ? expectations_->complaints() : std::vector<std::string>();
    for (const std::string& complaint : complaints) {
        std::cerr << "kavri conformance: " << complaint << std::endl;
    }
    if (!complaints.empty() && status == ExitStatus::passed) {
        status = ExitStatus::failed;
    }
    if (!reportFiles_->complaint().empty()) {
        throw CommandFailure(status == ExitStatus::passed ? ExitStatus::couldNotRun : status,
                             reportFiles_->complaint());
    }
    if (status == ExitStatus::ended) {
        throw CommandFailure(status, printable(cutOffText(report_)));
    }
    return status;
}

// Questions that nothing has to run for.
bool answers(const ConformanceOptions& options) {
    if (options.listsCases) {
        listCases(std::cout);
    } else if (options.listsFaults) {
        listFaults(std::cout);
    } else if (!options.explained.empty()) {
        explain(options.explained, std::cout);
    } else {
        return false;
    }
    return true;
}

}  // namespace

ExitStatus runConformance(const ConformanceOptions& options) {
    if (answers(options)) {
        return ExitStatus::passed;
    }
    checkOptions(options);
    std::optional<int> signal;
    ExitStatus status = ExitStatus::passed;
    {
        StopSignals signals;
        const OrphanCollector orphans;
        try {
            const RunLimits limits(runSeconds(options), signals);
            status = Conformance(limits, options).run();
        } catch (const CommandFailure& failure) {
            signal = signals.received();
            if (!signal) {
                throw;
            }
            std::cerr << "kavri conformance: " << failure.what() << std::endl;
        }
    }
    if (signal) {
        dieBySignal(*signal);
    }
    return status;
}

}  // namespace kavri::cli
