// The options of `kavri request`; see request_command.h.
#include "cli/request_command.h"

#include "cli/number_check.h"
#include "cli/socket_option.h"

namespace kavri::cli {

void describeRequest(CLI::App& command, terminal::RequestOptions& options) {
    command.add_option("CATEGORY", options.category, "Where the request goes")
        ->required()
        ->check(base::notEmpty());
    command.add_option("COMMAND", options.command, "What is asked for: its identifier")->required();
    command.add_option("PAYLOAD", options.payload,
                       "What goes with it; - for standard input [empty]");
    describeSocket(command, options.socket);
    command
        .add_option("--timeout", options.timeoutSeconds,
                    "How long the answer to a request is waited for")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(numberFromTo(0.001, 86400, "number of seconds"));
    CLI::Option* count =
        command
            .add_option("--count", options.count,
                        "Send that many, one after another, and print what became of them and "
                        "how long the answers took")
            ->type_name("N")
            ->check(numberFromTo(1, 1e9, "number of requests"));
    command
        .add_option("--rate", options.perSecond,
                    "With --count: send so many per second, whatever is not answered yet")
        ->type_name("N")
        ->check(numberFromTo(0.001, 1e6, "number per second"))
        ->needs(count);
    command.add_flag("--json", options.json, "Print JSON");
    command.footer(
        "Exit status: 0 answered; 1 the service ended it without an answer; 2 no answer in\n"
        "time; 3 not delivered; 4 unknown, since service or broker went away; 64 the command\n"
        "line is wrong; 74 the answer could not be printed. With --count, the greatest.\n\n"
        "Examples:\n"
        "  kavri request test echo hello\n"
        "  kavri request store put - < file\n"
        "  kavri request test echo hello --count 1000 --rate 200");
}

}  // namespace kavri::cli
