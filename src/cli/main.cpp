// kavri: the tool around the library and the broker. Parses the command line and runs the
// command that it names.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "base/command_line.h"
#include "cli/bench_command.h"
#include "cli/conformance_command.h"
#include "cli/listen_command.h"
#include "cli/monitor_command.h"
#include "cli/publish_command.h"
#include "cli/request_command.h"
#include "cli/serve_command.h"
#include "cli/status_command.h"
#include "process/exit_status.h"

namespace {

using namespace kavri::cli;
namespace conformance = kavri::conformance;
namespace process = kavri::process;

int complain(const std::string& command, const std::string& line, process::ExitStatus status) {
    std::cerr << command << ": " << line << std::endl;
    return static_cast<int>(status);
}

// A pipe made while one of the first three descriptors is closed would get its number, and
// be mistaken for standard input, output or error.
void openMissingStandardDescriptors() {
    int descriptor = -1;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= 2);
    if (descriptor > 2) {
        close(descriptor);
    }
}

// A reader who has left, as `| head` does, wants no more; any other failure means that
// somebody misses what was printed.
bool isOutputLost() {
    std::cout.flush();
    pollfd reader = {STDOUT_FILENO, POLLOUT, 0};
    const bool hasLeft = poll(&reader, 1, 0) == 1 && (reader.revents & POLLERR) != 0;
    return !std::cout && !hasLeft;
}

// What follows "--" is for the module, where the command is the one that runs it. Elsewhere no
// option follows: a payload may begin with a dash.
std::vector<std::string> cutModuleArguments(std::vector<std::string>& arguments) {
    const auto dashes = std::ranges::find(arguments, "--");
    if (dashes == arguments.end() || arguments.front() != "conformance") {
        return {};
    }
    std::vector<std::string> cut(dashes + 1, arguments.end());
    arguments.erase(dashes, arguments.end());
    return cut;
}

// The commands and their options.
struct Commands {
    CLI::App app{"Tools for the kavri core library and its broker.", "kavri"};
    ConformanceOptions conformance;
    BenchOptions bench;
    kavri::management::StatusOptions status;
    kavri::management::MonitorOptions monitor;
    kavri::terminal::RequestOptions request;
    kavri::terminal::ListenOptions listen;
    kavri::terminal::ServeOptions serve;
    kavri::terminal::PublishOptions publish;

    Commands() {
        app.set_version_flag("--version", "kavri " KAVRI_VERSION);
        app.require_subcommand(1);
        describeConformance(
            *app.add_subcommand(
                "conformance",
                "Run the conformance module against a broker and show what it finds"),
            conformance);
        describeBench(*app.add_subcommand("bench", "Measure how fast the broker at hand is"),
                      bench);
        describeStatus(*app.add_subcommand("status", "Show what a running broker is doing"),
                       status);
        describeMonitor(*app.add_subcommand("monitor", "Show what passes through the broker"),
                        monitor);
        describeRequest(*app.add_subcommand("request", "Send a request and print what is answered"),
                        request);
        describeListen(*app.add_subcommand("listen", "Print events as they come"), listen);
        describeServe(
            *app.add_subcommand("serve", "Answer requests with a command or a fixed text"), serve);
        describePublish(*app.add_subcommand("publish", "Publish an event"), publish);
        app.footer(
            "Examples:\n"
            "  kavri conformance\n"
            "  kavri request test echo hello\n"
            "  kavri request --help");
    }

    // The command that was called; the tool itself where none was.
    const CLI::App& called() const {
        const std::vector<CLI::App*> commands = app.get_subcommands();
        return commands.empty() ? app : *commands.front();
    }

    // Its name, behind the tool's own.
    std::string name() const {
        return &called() == &app ? "kavri" : "kavri " + called().get_name();
    }

    // A verdict that cannot be read is none; what else is shown changes nothing of what was done.
    process::ExitStatus statusOfLostOutput() const {
        return app.got_subcommand("conformance") ? process::ExitStatus::couldNotRun
                                                 : process::ExitStatus::outputLost;
    }

    process::ExitStatus run() {
        if (app.got_subcommand("conformance")) {
            return runConformance(called(), conformance);
        }
        if (app.got_subcommand("request")) {
            return kavri::terminal::runRequest(request);
        }
        if (app.got_subcommand("listen")) {
            return kavri::terminal::runListen(listen);
        }
        if (app.got_subcommand("serve")) {
            return kavri::terminal::runServe(serve);
        }
        if (app.got_subcommand("publish")) {
            return kavri::terminal::runPublish(publish);
        }
        if (app.got_subcommand("monitor")) {
            return kavri::management::runMonitor(monitor);
        }
        return app.got_subcommand("status") ? kavri::management::runStatus(status)
                                            : runBench(bench);
    }
};

int runCommandLine(const char* program, std::vector<std::string> arguments) {
    Commands commands;
    conformance::RunPlan& plan = commands.conformance.plan;
    plan.program = program;
    plan.tool = "kavri " KAVRI_VERSION;
    plan.invocation = arguments;
    plan.moduleArguments = cutModuleArguments(arguments);
    try {
        std::ranges::reverse(arguments);  // as the parser takes them
        commands.app.parse(arguments);
        const process::ExitStatus status = commands.run();
        if (isOutputLost()) {
            throw process::CommandFailure(
                status == process::ExitStatus::passed ? commands.statusOfLostOutput() : status,
                "cannot write all results to standard output; is the "
                "disk full?");
        }
        return static_cast<int>(status);
    } catch (const CLI::Success& asked) {
        return kavri::base::answer(commands.app, asked);
    } catch (const CLI::ParseError& error) {
        const std::vector<std::string> unknown = commands.app.remaining();
        if (commands.app.get_subcommands().empty() && !unknown.empty()) {
            return complain("kavri",
                            "no command or option '" + unknown.front() + "'; " +
                                kavri::base::suggestionFor(commands.app) + "see 'kavri --help'",
                            process::ExitStatus::usage);
        }
        const std::string name = commands.name();
        return complain(name, kavri::base::usageComplaint(commands.called(), error, name),
                        process::ExitStatus::usage);
    } catch (const process::CommandFailure& failure) {
        return complain(commands.name(), failure.what(), failure.status());
    }
}

}  // namespace

int main(int argc, char** argv) {
    openMissingStandardDescriptors();
    // Without a reader of the output, the tool must nevertheless clean up.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return runCommandLine(argv[0], {argv + 1, argv + argc});
    } catch (const std::exception& error) {
        // A failed system call, such as of a folder or a process.
        std::fprintf(stderr, "kavri: %s\n", error.what());
        return static_cast<int>(process::ExitStatus::couldNotRun);
    }
}
