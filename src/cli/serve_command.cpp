// The options of `kavri serve`; see serve_command.h.
#include "cli/serve_command.h"

#include "cli/number_check.h"
#include "cli/socket_option.h"
#include "terminal/serve/request_inbox.h"

namespace kavri::cli {

void describeServe(CLI::App& command, terminal::ServeOptions& options) {
    command.add_option("CATEGORY", options.category, "What is served")
        ->required()
        ->check(base::notEmpty());
    describeSocket(command, options.socket);
    CLI::Option* exec =
        command
            .add_option("--exec", options.command,
                        "Run this with sh for each request: it reads the payload, what it writes "
                        "is the answer's; KAVRI_COMMAND, KAVRI_UUID and KAVRI_CATEGORY say the "
                        "rest")
            ->type_name("COMMAND")
            ->check(base::notEmpty());
    command
        .add_option_function<std::string>(  // the parser takes an empty text for none
            "--answer", [&options](const std::string& text) { options.answer = text; },
            "Answer each request with this payload [the request's own]")
        ->type_name("TEXT")
        ->excludes(exec);
    command
        .add_option("--timeout", options.timeoutSeconds,
                    "Kill a command that takes longer, and leave its request without an answer")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(numberFromTo(0.001, 86400, "number of seconds"));
    command.add_option("--jobs", options.jobs, "Run up to that many commands at a time")
        ->type_name("N")
        ->capture_default_str()
        ->check(numberFromTo(1, terminal::RequestInbox::mostAtOnce, "number of commands"));
    command.footer(
        "Says on standard error when it is ready, and which requests got no answer. SIGTERM\n"
        "and SIGINT stop it, and the commands that it runs.\n\n"
        "Exit status: 0 stopped; 3 it cannot serve the category; 64 the command line is\n"
        "wrong.\n\n"
        "Examples:\n"
        "  kavri serve demo\n"
        "  kavri serve demo --answer 'not yet'\n"
        "  kavri serve upper --exec 'tr a-z A-Z' --jobs 4");
}

}  // namespace kavri::cli
