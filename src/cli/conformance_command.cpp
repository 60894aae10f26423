// The options of `kavri conformance`, and its process: signals and orphans; see
// conformance_command.h.
#include "cli/conformance_command.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "base/command_line.h"
#include "base/suggestion.h"
#include "cli/number_check.h"
#include "conformance/cases/explanations.h"
#include "conformance/faults/fault_catalogue.h"
#include "conformance/run/conformance_run.h"
#include "conformance/run/growth.h"
#include "process/orphans.h"
#include "process/stop_signals.h"

namespace kavri::cli {

namespace {

CLI::Validator levelName() {
    return {[](const std::string& text) {
                return conformance::levelNamed(text)
                           ? std::string()
                           : fmt::format("'{}' is none of must, should, may", text);
            },
            ""};
}

void describeLimits(CLI::App& command, ConformanceOptions& options) {
    command
        .add_option("--timeout", options.plan.timeoutSeconds,
                    "End the run when it takes longer than this [60 for each run, 300 with "
                    "--prove]")
        ->type_name("SECONDS")
        ->check(numberFromTo(0.001, 86400, "number of seconds"));
    command
        .add_option("--call-timeout", options.plan.callTimeoutSeconds,
                    "A call that takes longer than this does not return")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(numberFromTo(0.1, 3600, "number of seconds"));
    command
        .add_option("--time-scale", options.plan.timeScale,
                    "Multiply the time limits: for slow machines and sanitizers")
        ->type_name("FACTOR")
        ->capture_default_str()
        ->check(numberFromTo(0.1, 1000, "factor"));
    command.add_option("--repeat", options.plan.repeat, "Run that often")
        ->type_name("N")
        ->check(numberFromTo(1, 1e6, "number of runs"));
    command.add_flag("--until-fail", options.plan.untilFail,
                     "With --repeat: end after the first run that does not pass");
    command.add_flag("--fail-on-leaks", options.plan.failsOnLeaks,
                     "With --repeat: what the library holds must not grow with the runs");
    command
        .add_option("--shuffle", options.plan.shuffle,
                    "With --repeat: cases in another order each time, from this seed on")
        ->type_name("SEED")
        ->check(numberFromTo(1, 1e9, "seed"));
    command
        .add_option("--jobs", options.plan.jobs,
                    "With --repeat and --prove: so many processes at a time [up to 4 for each "
                    "processor]")
        ->type_name("N")
        ->check(numberFromTo(1, 1000, "number of runs"));
}

void describeProof(CLI::App& command, ConformanceOptions& options) {
    command.add_flag("--prove", options.plan.proves,
                     "Then break the library in each way of the fault catalogue, and prove that "
                     "the cases detect it");
    command.add_option("--fault", options.plan.fault, "Run with the library broken in this way")
        ->type_name("NAME")
        ->check(base::notEmpty());
    command.add_flag("--list", options.listsCases, "List the cases, and run nothing");
    command.add_flag("--list-faults", options.listsFaults, "List the faults, and run nothing");
    command
        .add_option("--explain", options.explained, "Explain a case or a fault, and run nothing")
        ->type_name("NAME")
        ->check(base::notEmpty());
}

void describeReports(CLI::App& command, ConformanceOptions& options) {
    command.add_option("--json", options.plan.reports.json, "Write the whole report as JSON")
        ->type_name("FILE");
    command.add_option("--junit", options.plan.reports.junit, "Write the verdicts as JUnit XML")
        ->type_name("FILE");
    command
        .add_option("--html", options.plan.reports.html,
                    "Write a page, index.html, that shows the run, into DIR")
        ->type_name("DIR");
    command
        .add_option("--expect", options.plan.expectations,
                    "Failures that are known; a line each: case, or case: check, # reason")
        ->type_name("FILE")
        ->check(base::notEmpty());
    command
        .add_option("--write-expect", options.plan.writtenExpectations,
                    "Write the failures of this run, as --expect reads them")
        ->type_name("FILE")
        ->check(base::notEmpty());
    command
        .add_option("--baseline", options.plan.baseline,
                    "Compare with the run whose --json report this is; only what is newly failing "
                    "or missing counts")
        ->type_name("FILE")
        ->check(base::notEmpty());
}

[[noreturn]] void refuse(const std::string& line) {
    throw process::CommandFailure(process::ExitStatus::usage, line);
}

// The options that were given, with their dashes.
std::vector<std::string> givenOptions(const CLI::App& command) {
    std::vector<std::string> given;
    for (const CLI::Option* option : command.get_options()) {
        if (option->count() > 0) {
            given.push_back("--" + option->get_lnames().front());
        }
    }
    return given;
}

// An option beside which others have no effect.
struct Alone {
    std::string_view option;
    std::set<std::string_view> companions;  // those that have an effect nevertheless
};

const std::array alone = {
    Alone{"--list", {"--case", "--level"}},
    Alone{"--list-faults", {}},
    Alone{"--explain", {}},
    Alone{"--prove",
          {"--library", "--name", "--timeout", "--call-timeout", "--time-scale", "--jobs", "--json",
           "--junit", "--html", "--expect", "--strict"}},
};

// Throws CommandFailure where one option rules another out.
void checkCompanions(const std::vector<std::string>& given, bool hasModuleArguments) {
    for (const Alone& one : alone) {
        if (std::ranges::find(given, one.option) == given.end()) {
            continue;
        }
        for (const std::string& other : given) {
            if (other != one.option && !one.companions.contains(other)) {
                refuse(fmt::format("{} has no effect with {}; leave out one of them", other,
                                   one.option));
            }
        }
        if (hasModuleArguments && one.option != "--prove") {
            refuse(fmt::format("{} runs no module; leave out the arguments after --", one.option));
        }
    }
}

// An option that has no effect without one of some others.
struct Dependent {
    std::string_view option;
    std::vector<std::string_view> needs;
};

const std::array dependents = {
    Dependent{"--until-fail", {"--repeat"}},
    Dependent{"--fail-on-leaks", {"--repeat"}},
    Dependent{"--service-record", {"--socket", "--own-broker"}},
    Dependent{"--shuffle", {"--repeat"}},
    Dependent{"--jobs", {"--repeat", "--prove"}},
};

void checkNeeds(const std::vector<std::string>& given) {
    const auto isGiven = [&given](std::string_view option) {
        return std::ranges::find(given, option) != given.end();
    };
    for (const Dependent& one : dependents) {
        if (isGiven(one.option) && std::ranges::none_of(one.needs, isGiven)) {
            refuse(fmt::format("{} has no effect without {}", one.option,
                               fmt::join(one.needs, " or ")));
        }
    }
}

// One file cannot hold two reports, nor be compared with what replaces it.
void checkFiles(const conformance::RunPlan& plan) {
    std::map<std::filesystem::path, std::string_view> written;
    const auto add = [&written](std::string_view option, const std::optional<std::string>& file) {
        if (!file || file->empty()) {
            return;
        }
        const auto [place, isNew] =
            written.emplace(std::filesystem::path(*file).lexically_normal(), option);
        if (!isNew) {
            refuse(fmt::format("{} and {} name the same file", place->second, option));
        }
    };
    add("--json", plan.reports.json);
    add("--junit", plan.reports.junit);
    add("--write-expect", plan.writtenExpectations);
    add("--baseline", plan.baseline);
}

// Throws CommandFailure where two options exclude each other, one has no effect, or a name
// is unknown.
void checkOptions(const CLI::App& command, const ConformanceOptions& options) {
    const conformance::RunPlan& plan = options.plan;
    const std::vector<std::string> given = givenOptions(command);
    checkCompanions(given, !plan.moduleArguments.empty());
    checkNeeds(given);
    checkFiles(plan);
    if (!plan.fault.empty() && conformance::findFault(plan.fault) == nullptr) {
        refuse(fmt::format("no fault '{}'; {}see --list-faults", plan.fault,
                           base::didYouMean(plan.fault, conformance::namesOfFaults())));
    }
    if (plan.proves && plan.libraries.size() > 1) {
        refuse("--prove is for one library at a time");
    }
    if (plan.repeat && (!plan.writtenExpectations.empty() || !plan.baseline.empty())) {
        refuse("--write-expect and --baseline are for a single run; leave out --repeat");
    }
    if (plan.socket && plan.ownBroker) {
        refuse("--own-broker is for a library that finds its broker by itself; leave out --socket");
    }
    if (plan.failsOnLeaks &&
        *plan.repeat < conformance::leastRunsForGrowth * std::max(1U, plan.jobs)) {
        refuse(
            fmt::format("--fail-on-leaks needs {} runs of each process; give --repeat more, or "
                        "--jobs less",
                        conformance::leastRunsForGrowth));
    }
    const size_t libraryCount = std::max<size_t>(1, plan.libraries.size());
    if (!plan.names.empty() && plan.names.size() != libraryCount) {
        refuse(fmt::format("{} libraries and {} names; give a --name for each --library, or none",
                           libraryCount, plan.names.size()));
    }
    if (std::set(plan.names.begin(), plan.names.end()).size() != plan.names.size()) {
        refuse(
            "two libraries with the same --name; no reader of the reports could tell them apart");
    }
    if (!plan.startsBrokers() && plan.jobs != 0) {
        refuse("--jobs needs brokers of the kit's; leave out --socket and --own-broker");
    }
}

// Answers what can be answered without a run; false where a run is asked for.
bool isAnsweredWithoutRun(const ConformanceOptions& options) {
    if (options.listsCases) {
        conformance::listCases(options.plan.casePatterns, options.plan.level, std::cout);
    } else if (options.listsFaults) {
        conformance::listFaults(std::cout);
    } else if (!options.explained.empty()) {
        conformance::explain(options.explained, std::cout);
    } else {
        return false;
    }
    return true;
}

}  // namespace

void describeConformance(CLI::App& command, ConformanceOptions& options) {
    command
        .add_option("--socket", options.plan.socket,
                    "Run against the broker at PATH, which must have a test service; "
                    "without it a broker with one is started for the run")
        ->type_name("PATH");
    command.add_flag("--own-broker", options.plan.ownBroker,
                     "The library brings its own broker and test service, which are running");
    command
        .add_option("--service-record", options.plan.serviceRecord,
                    "With --socket or --own-broker: the file in which the test service records "
                    "what reaches it; without it no pass is confirmed")
        ->type_name("FILE");
    command
        .add_option("--library", options.plan.libraries,
                    "Run the module with the core library in DIR; may be repeated, to compare")
        ->type_name("DIR")
        ->allow_extra_args(false);
    command
        .add_option("--name", options.plan.names,
                    "Call the library so in the reports; one for each --library, in their order "
                    "[its folder]")
        ->type_name("NAME")
        ->allow_extra_args(false);
    command
        .add_option("--case", options.plan.casePatterns,
                    "Run only the cases whose name, or suite/name, matches GLOB; may be repeated")
        ->type_name("GLOB")
        ->allow_extra_args(false);
    command.add_flag("--strict", options.plan.strict,
                     "A case with a warning fails, and so does a pass that the other side does "
                     "not confirm");
    command
        .add_option_function<std::string>(
            "--level",
            [&options](const std::string& name) {
                options.plan.level = *conformance::levelNamed(name);
            },
            "Run only the cases of this level or above, and let only such checks count: must, "
            "should, may")
        ->type_name("LEVEL")
        ->check(levelName());
    describeLimits(command, options);
    describeProof(command, options);
    describeReports(command, options);
    command.footer(
        "Arguments after -- go to the module.\n\n"
        "Exit status: 0 all checks passed; 1 a check failed, or, with --baseline, a case is\n"
        "newly failing; 2 a case took too long or crashed; 3 the run could not take place;\n"
        "64 the command line is wrong.\n\n"
        "Examples:\n"
        "  kavri conformance\n"
        "  kavri conformance --library /opt/other/lib\n"
        "  kavri conformance --case 'initiatorRepeat*' --timeout 10\n"
        "  kavri conformance --prove --html report\n"
        "  kavri conformance --socket /run/kavri/broker.sock -- --report_level=detailed");
}

process::ExitStatus runConformance(const CLI::App& command, const ConformanceOptions& options) {
    checkOptions(command, options);
    if (isAnsweredWithoutRun(options)) {
        return process::ExitStatus::passed;
    }
    std::optional<int> signal;
    process::ExitStatus status = process::ExitStatus::passed;
    {
        process::StopSignals signals;
        const process::OrphanCollector orphans;
        try {
            const conformance::RunLimits limits(options.plan.limitSeconds(), signals);
            status = conformance::ConformanceRun(options.plan, limits).run();
        } catch (const process::CommandFailure& failure) {
            signal = signals.received();
            if (!signal) {
                throw;
            }
            std::cerr << "kavri conformance: " << failure.what() << std::endl;
        }
    }
    if (signal) {
        process::dieBySignal(*signal);
    }
    return status;
}

}  // namespace kavri::cli
