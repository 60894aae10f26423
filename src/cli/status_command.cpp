// The options of `kavri status`; see status_command.h.
#include "cli/status_command.h"

#include "base/command_line.h"

namespace kavri::cli {

void describeStatus(CLI::App& command, management::StatusOptions& options) {
    using management::StatusForm;
    command
        .add_option("--socket", options.socket,
                    "The broker's socket; otherwise $KAVRI_BROKER and the usual places")
        ->type_name("PATH")
        ->check(base::notEmpty());
    CLI::Option* const json = command.add_flag_callback(
        "--json", [&options] { options.form = StatusForm::json; }, "Print JSON");
    CLI::Option* const prometheus = command.add_flag_callback(
        "--prometheus", [&options] { options.form = StatusForm::prometheus; },
        "Print the text format of Prometheus");
    prometheus->excludes(json);
    command
        .add_option_function<double>(
            "--watch", [&options](double seconds) { options.watchSeconds = seconds; },
            "Look again every SECONDS, 2 unless given; with --json, one object on each line")
        ->type_name("[SECONDS]")
        ->expected(0, 1)
        ->default_str("2")
        ->check(CLI::Range(0.1, 86400.0))
        ->excludes(prometheus);
    command.add_flag("--all", options.all, "Show every connection, not only the first 20")
        ->excludes(json)
        ->excludes(prometheus);
    command.add_option("--timeout", options.timeoutSeconds, "How long to wait for each answer")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 86400.0));
    command.footer(
        "Root and the broker's own user may ask, and whom its configuration names in 'manage'.\n"
        "What is slow comes first: connections that do not read what is sent to them, and those\n"
        "that wait for them.\n\n"
        "Exit status: 0 shown; 1 the broker refuses; 2 no answer in time; 3 no broker there;\n"
        "64 the command line is wrong; 74 it could not be printed.\n\n"
        "Examples:\n"
        "  kavri status\n"
        "  kavri status --watch 1\n"
        "  kavri status --json --socket /run/kavri/broker.sock");
}

}  // namespace kavri::cli
