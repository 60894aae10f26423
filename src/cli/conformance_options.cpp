// The options of `kavri conformance`; see conformance_options.h.
#include "cli/conformance_options.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "cli/exit_status.h"
#include "probe/fault_catalogue.h"

namespace kavri::cli {

namespace {

// Of the whole run, unless the user says otherwise.
constexpr double usualSeconds = 60;
constexpr double matrixSeconds = 300;

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

}  // namespace kavri::cli
