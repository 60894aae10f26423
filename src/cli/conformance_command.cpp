// From the command line to the exit status; see conformance_command.h. What
// can be known to be wrong is found out before the broker is started and any
// case runs.
#include "cli/conformance_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <iostream>

#include "cli/broker_access.h"
#include "cli/case_listing.h"
#include "cli/conformance_module.h"
#include "cli/exit_text.h"
#include "cli/module_arguments.h"
#include "cli/module_run.h"
#include "cli/orphans.h"
#include "cli/run_display.h"
#include "cli/stop_signals.h"

namespace kavri::cli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// What the framework returns where it could not begin, say for an argument
// that it does not know.
constexpr int frameworkRefusal = 200;
constexpr int frameworkFailure = 201;

// In the form that the parser asks of a check: empty, or what is wrong.
std::string checkSeconds(const std::string& text) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    return isNumber && seconds >= 0.001 && seconds <= 86400
               ? ""
               : fmt::format("'{}' is no number of seconds from 0.001 to 86400", text);
}

// As it is best said in the current folder.
std::string shortened(const fs::path& path) {
    const fs::path normal = path.lexically_normal();
    const fs::path relative = normal.lexically_relative(fs::current_path());
    return relative.empty() || *relative.begin() == ".." ? normal.string() : relative.string();
}

// A file that belongs to this program, by its place relative to it. Throws
// CommandFailure where it is not there.
fs::path installedFile(const char* place) {
    fs::path file = fs::read_symlink("/proc/self/exe").parent_path() / place;
    file = file.lexically_normal();
    if (access(file.c_str(), R_OK) != 0) {
        throw CommandFailure(
            ExitStatus::couldNotRun,
            fmt::format("{} is missing; build it, or install it with kavri", file.string()));
    }
    return file;
}

// What all steps of one run share.
struct Run {
    const ConformanceOptions& options;
    const RunLimits& limits;
    std::vector<std::string> cases;  // those that were selected
    RunDisplay display;
    Clock::time_point begun;
};

// Where the run was when it was cut off: "in initiatorSend/initiatorSendPass, at
// test.cpp(12); the last check that passed is at test.cpp(10)".
std::string placeText(const CaseRecord* record, const RunRecord& all) {
    if (record == nullptr) {
        return all.cases().empty() ? "before any case" : "after " + all.cases().back().name;
    }
    const std::string reached = record->reached.empty() ? "" : ", at " + record->reached;
    const std::string passed = record->lastPassed.empty()
                                   ? "no check of it had passed"
                                   : "the last check that passed is at " + record->lastPassed;
    return printable(fmt::format("in {}{}; {}", record->name, reached, passed));
}

// Whether every selected case came to its end and the module gave its verdict.
bool isComplete(const Run& run, const RunRecord& record, const ExitState& exit) {
    return record.cases().size() == run.cases.size() &&
           std::ranges::all_of(record.cases(), &CaseRecord::isComplete) && exit.signal == 0 &&
           (exit.code == 0 || exit.code == frameworkFailure);
}

bool hasPassed(const Run& run, const RunRecord& record, const ExitState& exit) {
    return isComplete(run, record, exit) && exit.succeeded() &&
           record.casesPassed() == run.cases.size();
}

ExitStatus judgeEnd(const Run& run, const RunRecord& record, const ExitState& exit,
                    const std::string& place) {
    if (record.cases().empty() && exit.code == frameworkRefusal) {
        throw CommandFailure(
            run.options.moduleArguments.empty() ? ExitStatus::couldNotRun : ExitStatus::usage,
            "the module refused to run; the reason stands above");
    }
    if (!isComplete(run, record, exit)) {
        throw CommandFailure(ExitStatus::ended,
                             fmt::format("the module {} {}", exitText(exit), place));
    }
    return hasPassed(run, record, exit) ? ExitStatus::passed : ExitStatus::failed;
}

Verdict verdictOnCutOff(RunEnd end) {
    switch (end) {
        case RunEnd::moduleEnded:
            return Verdict::crashed;
        case RunEnd::timeOver:
            return Verdict::hung;
        case RunEnd::brokerLost:
        case RunEnd::signalled:
            break;
    }
    return Verdict::stopped;
}

// Shows what was cut off, and closes. What the broker said matters only where
// something went wrong. Returns the case that was cut off, or null.
const CaseRecord* showEnd(Run& run, RunEnd end, ModuleRun& moduleRun) {
    RunRecord& record = moduleRun.record();
    const CaseRecord* cutOff = nullptr;
    if (record.underWay() != nullptr) {
        cutOff = &record.cutOff(verdictOnCutOff(end), Clock::now());
        run.display.showCaseEnded(*cutOff);
    }
    for (const LogEntry& entry : record.unclaimed()) {
        run.display.showRemark(entry.text);
    }
    if (end != RunEnd::moduleEnded || !hasPassed(run, record, moduleRun.exit())) {
        for (const std::string& line : moduleRun.brokerLines()) {
            run.display.showOthersLine(line);
        }
    }
    run.display.showClosing(
        record, std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - run.begun));
    return cutOff;
}

ExitStatus conclude(Run& run, RunEnd end, ModuleRun& moduleRun, ChildProcess* broker) {
    const CaseRecord* cutOff = showEnd(run, end, moduleRun);
    const std::string place = placeText(cutOff, moduleRun.record());
    if (end == RunEnd::timeOver || end == RunEnd::signalled) {
        run.limits.giveUp(place);
    }
    if (end == RunEnd::brokerLost) {
        const auto exit = broker->wait(std::chrono::milliseconds(0)).value_or(ExitState{});
        throw CommandFailure(ExitStatus::couldNotRun,
                             fmt::format("the broker {} {}", exitText(exit), place));
    }
    return judgeEnd(run, moduleRun.record(), moduleRun.exit(), place);
}

ExitStatus runWith(Run& run, const ConformanceModule& module, const ModuleRunRequest& request,
                   ChildProcess* broker) {
    ModuleRun moduleRun(broker, run.limits, run.display);
    const RunEnd end = moduleRun.run(module, request);
    return conclude(run, end, moduleRun, broker);
}

ExitStatus runWithin(const RunLimits& limits, const ConformanceOptions& options) {
    checkModuleArguments(options.moduleArguments);
    if (options.socket) {
        checkBrokerListens(*options.socket);
    }
    const ConformanceModule module(
        installedFile("test_ipc_initiator"),
        options.library ? std::optional<fs::path>(*options.library) : std::nullopt);
    ModuleRunRequest request;
    request.userArguments = options.moduleArguments;
    request.observer = installedFile("../lib/libkavri-module-observer.so");
    request.libraries = module.findLibraries(limits);
    const std::vector<std::string> cases =
        selectCases(module.listCases(limits), options.casePatterns);
    if (!options.casePatterns.empty()) {
        request.cases = cases;
    }

    Run run{options, limits, cases,
            RunDisplay(std::cout, std::cerr, DisplayStyle::ofStandardOutput(), cases),
            Clock::now()};
    const std::string library = shortened(request.libraries.core);
    if (options.socket) {
        request.brokerSocket = *options.socket;
        run.display.showOpening(library, "broker at " + *options.socket);
        return runWith(run, module, request, nullptr);
    }
    OwnBroker broker(installedFile("kavri-broker"), limits);
    request.brokerSocket = broker.socket();
    run.display.showOpening(library, "broker of its own");
    run.begun = Clock::now();
    return runWith(run, module, request, &broker.process());
}

}  // namespace

void describeConformance(CLI::App& command, ConformanceOptions& options) {
    command
        .add_option("--socket", options.socket,
                    "Run against the broker at PATH, which must have a test service; "
                    "without it a broker with one is started for the run")
        ->type_name("PATH");
    command.add_option("--library", options.library, "Run the module with the core library in DIR")
        ->type_name("DIR");
    command
        .add_option("--case", options.casePatterns,
                    "Run only the cases whose name, or suite/name, matches GLOB; may be repeated")
        ->type_name("GLOB")
        ->allow_extra_args(false);
    command
        .add_option("--timeout", options.timeoutSeconds,
                    "End the module when the run takes longer than this")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Validator(checkSeconds, ""));
    command.footer(
        "Arguments after -- go to the module.\n\n"
        "Exit status: 0 all checks passed; 1 a check failed; 2 the time was over, or the\n"
        "module crashed; 3 the run could not take place; 64 the command line is wrong.\n\n"
        "Examples:\n"
        "  kavri conformance\n"
        "  kavri conformance --library /opt/other/lib\n"
        "  kavri conformance --case 'initiatorRepeat*' --timeout 10\n"
        "  kavri conformance --socket /run/kavri/broker.sock -- --report_level=detailed");
}

ExitStatus runConformance(const ConformanceOptions& options) {
    std::optional<int> signal;
    ExitStatus status = ExitStatus::passed;
    {
        StopSignals signals;
        const OrphanCollector orphans;
        try {
            status = runWithin(RunLimits(options.timeoutSeconds, signals), options);
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
