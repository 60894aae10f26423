// From the command line to the exit status; see conformance_command.h. What
// can be known to be wrong is found out before the broker is started and any
// case runs.
#include "cli/conformance_command.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <kavri/ipc.h>

#include <algorithm>
#include <charconv>
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

// Of the whole run, unless the user says otherwise.
constexpr double usualSeconds = 60;
constexpr double matrixSeconds = 300;
// With a fault, no call takes long but one that does not return.
constexpr std::chrono::milliseconds matrixCallTime{800};

// In the form that the parser asks of a check: empty, or what is wrong.
CLI::Validator numberFromTo(double least, double most, const char* what) {
    return {[=](const std::string& text) {
                double number = 0;
                const auto [end, error] =
                    std::from_chars(text.data(), text.data() + text.size(), number);
                const bool isNumber = error == std::errc() && end == text.data() + text.size();
                return isNumber && number >= least && number <= most
                           ? std::string()
                           : fmt::format("'{}' is no {} from {} to {}", text, what, least, most);
            },
            ""};
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

// One run of the command.
class Conformance {
  public:
    Conformance(const RunLimits& limits, const ConformanceOptions& options)
        : limits_(limits), options_(options), begun_(Clock::now()) {}

    ExitStatus run();

  private:
    Report openingReport() const;
    std::string commandLine(const std::vector<std::string>& further) const;
    Patience patience() const;
    void runLibrary(const std::optional<std::string>& folder);
    void runOnce(const LibraryRun& library, const std::vector<std::string>& cases,
                 RunDisplay& display);
    void runOften(const LibraryRun& library, const std::vector<std::string>& cases,
                  RunDisplay& display);
    void prove(const LibraryRun& library, RunDisplay& display);
    void showMatrix(const MatrixReport& matrix, RunDisplay& display) const;
    void keep(LibraryReport& report, const std::vector<CaseReport>& cases);
    void annotate(std::vector<CaseReport>& cases);
    void conclude(const CasesOutcome& outcome, const std::optional<ExitState>& brokerExit);
    ExitStatus judge();
    unsigned jobs(unsigned most) const;

    const RunLimits& limits_;
    const ConformanceOptions& options_;
    const Clock::time_point begun_;
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

// The command that runs a part of this again.
std::string Conformance::commandLine(const std::vector<std::string>& further) const {
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
    words.insert(words.end(), further.begin(), further.end());
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
    for (CaseReport& each : report.cases) {
        std::vector<std::string> further;
        const auto add = [&further](const char* option, const std::string& value) {
            further.emplace_back(option);
            further.push_back(quoted(value));
        };
        if (!options_.libraries.empty()) {
            add("--library", report.name);
        }
        add("--case", each.name);
        each.repeat = commandLine(further);
    }
    report_.seconds = std::chrono::duration<double>(Clock::now() - begun_).count();
    report.seconds = report_.seconds;
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
    const Clock::time_point begun = Clock::now();
    CasesRun run(library.module(), own ? &own->process() : nullptr, limits_, display, patience());
    const CasesOutcome outcome =
        run.run(request, cases, [&](const auto& soFar) { keep(report, soFar); });
    annotate(report.cases);
    reportFiles_->update(report_);
    if (worstOf(outcome.cases) != Verdict::pass) {
        for (const std::string& line : outcome.brokerLines) {
            display.showOthersLine(line);
        }
    }
    display.showClosing(report.cases, std::chrono::duration<double>(Clock::now() - begun).count());
    conclude(outcome, own ? own->process().wait(std::chrono::milliseconds(0)) : std::nullopt);
}

// What makes it pointless to go on with anything else.
void Conformance::conclude(const CasesOutcome& outcome,
                           const std::optional<ExitState>& brokerExit) {
    if (outcome.refusal != 0) {
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
    for (const auto& [function, times] : outcome.report.latencies) {
        const auto us = [&times](double share) {
            return std::chrono::duration<double, std::micro>(times.percentile(share)).count();
        };
        display.showRemark(fmt::format("{:<52}  {:>8} calls  p50 {:>9.1f} us  p99 {:>9.1f} us",
                                       function, times.count(), us(0.5), us(0.99)));
    }
    for (const RepeatReport::Growth& growth : outcome.report.growth) {
        display.showRemark(fmt::format("{:<24}  {:>8} first  {:>8} last  {:>8} most", growth.what,
                                       growth.first, growth.last, growth.most));
    }
    display.showRemark(fmt::format("{} runs, {} passed; {}", outcome.report.runs,
                                   outcome.report.passed, durationText(report.seconds)));
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
    reportFiles_->update(report_);
}

void Conformance::showMatrix(const MatrixReport& matrix, RunDisplay& display) const {
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

void checkOptions(const ConformanceOptions& options) {
    const auto refuse = [](const std::string& line) {
        throw CommandFailure(ExitStatus::usage, line);
    };
    if (!options.fault.empty() && probe::findFault(options.fault) == nullptr) {
        refuse(fmt::format("no fault '{}'; see --list-faults", options.fault));
    }
    if (options.proves && (options.socket || options.libraries.size() > 1 || options.repeat ||
                           !options.fault.empty() || !options.casePatterns.empty())) {
        refuse(
            "--prove runs all cases with one library and brokers of its own; leave out "
            "--socket, --case, --fault, --repeat and any second --library");
    }
    if (!options.repeat && (options.untilFail || options.shuffle)) {
        refuse("--until-fail and --shuffle need --repeat N");
    }
    if (options.repeat && options.libraries.size() > 1) {
        refuse("--repeat is for one library at a time");
    }
    if (options.socket && options.jobs > 1) {
        refuse("--jobs needs brokers of its own; leave out --socket");
    }
}

double runSeconds(const ConformanceOptions& options) {
    if (options.timeoutSeconds) {
        return *options.timeoutSeconds;
    }
    const double usual = options.proves ? matrixSeconds : usualSeconds;
    return usual * options.timeScale * options.repeat.value_or(1) *
           static_cast<double>(std::max<size_t>(1, options.libraries.size()));
}

void describeLimits(CLI::App& command, ConformanceOptions& options) {
    command
        .add_option("--timeout", options.timeoutSeconds,
                    "End the run when it takes longer than this [60 for each run, 300 with "
                    "--prove]")
        ->type_name("SECONDS")
        ->check(numberFromTo(0.001, 86400, "number of seconds"));
    command
        .add_option("--call-timeout", options.callTimeoutSeconds,
                    "A call that takes longer than this does not return")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(numberFromTo(0.1, 3600, "number of seconds"));
    command
        .add_option("--time-scale", options.timeScale,
                    "Have that much more patience: for slow machines and sanitizers")
        ->type_name("FACTOR")
        ->capture_default_str()
        ->check(numberFromTo(0.1, 1000, "factor"));
    command.add_option("--repeat", options.repeat, "Run that often")
        ->type_name("N")
        ->check(numberFromTo(1, 1e6, "number of runs"));
    command.add_flag("--until-fail", options.untilFail,
                     "With --repeat: end after the first run that does not pass");
    command
        .add_option("--shuffle", options.shuffle,
                    "With --repeat: cases in another order each time, from this seed on")
        ->type_name("SEED")
        ->check(numberFromTo(1, 1e9, "seed"));
    command
        .add_option("--jobs", options.jobs,
                    "With --repeat and --prove: so many runs at a time [4 for each processor]")
        ->type_name("N")
        ->check(numberFromTo(1, 1000, "number of runs"));
}

void describeProof(CLI::App& command, ConformanceOptions& options) {
    command.add_flag("--prove", options.proves,
                     "Then break the library in each way of the fault catalogue, and prove that "
                     "the cases notice");
    command.add_option("--fault", options.fault, "Run with the library broken in this way")
        ->type_name("NAME");
    command.add_flag("--list", options.listsCases, "List the cases, and run nothing");
    command.add_flag("--list-faults", options.listsFaults, "List the faults, and run nothing");
    command
        .add_option("--explain", options.explained,
                    "Tell what a case or a fault is about, and run nothing")
        ->type_name("NAME");
}

void describeReports(CLI::App& command, ConformanceOptions& options) {
    command.add_option("--json", options.reports.json, "Write all that was found out as JSON")
        ->type_name("FILE");
    command.add_option("--junit", options.reports.junit, "Write the verdicts as JUnit XML")
        ->type_name("FILE");
    command
        .add_option("--html", options.reports.html,
                    "Write a page, index.html, that shows the run, into DIR")
        ->type_name("DIR");
    command
        .add_option("--expect", options.expectations,
                    "Failures that are known; a line each: case, or case: check, # reason")
        ->type_name("FILE");
}

}  // namespace

void describeConformance(CLI::App& command, ConformanceOptions& options) {
    command
        .add_option("--socket", options.socket,
                    "Run against the broker at PATH, which must have a test service; "
                    "without it a broker with one is started for the run")
        ->type_name("PATH");
    command
        .add_option("--library", options.libraries,
                    "Run the module with the core library in DIR; may be repeated, to compare")
        ->type_name("DIR")
        ->allow_extra_args(false);
    command
        .add_option("--case", options.casePatterns,
                    "Run only the cases whose name, or suite/name, matches GLOB; may be repeated")
        ->type_name("GLOB")
        ->allow_extra_args(false);
    describeLimits(command, options);
    describeProof(command, options);
    describeReports(command, options);
    command.footer(
        "Arguments after -- go to the module.\n\n"
        "Exit status: 0 all checks passed; 1 a check failed; 2 a case took too long or\n"
        "crashed; 3 the run could not take place; 64 the command line is wrong.\n\n"
        "Examples:\n"
        "  kavri conformance\n"
        "  kavri conformance --library /opt/other/lib\n"
        "  kavri conformance --case 'initiatorRepeat*' --timeout 10\n"
        "  kavri conformance --prove --html report\n"
        "  kavri conformance --socket /run/kavri/broker.sock -- --report_level=detailed");
}

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
