// The options of `kavri listen`; see listen_command.h.
#include "cli/listen_command.h"

#include "cli/number_check.h"
#include "cli/socket_option.h"

namespace kavri::cli {

void describeListen(CLI::App& command, terminal::ListenOptions& options) {
    command.add_option("CATEGORY", options.categories, "Whose events are printed")
        ->required()
        ->check(base::notEmpty());
    describeSocket(command, options.socket);
    command.add_option("--count", options.count, "End after that many events")
        ->type_name("N")
        ->check(numberFromTo(1, 1e15, "number of events"));
    command.add_option("--timeout", options.timeoutSeconds, "End after that time")
        ->type_name("SECONDS")
        ->check(numberFromTo(0.001, 1e9, "number of seconds"));
    command.add_flag("--json", options.json, "Print a line of JSON for each event");
    command.footer(
        "A line has the time, the category, the identifier and the payload.\n\n"
        "Exit status: 0 ended by --count, or by --timeout alone; 2 the time was over before\n"
        "there were that many; 3 it could not listen; 64 the command line is wrong; 74 an\n"
        "event could not be printed.\n\n"
        "Examples:\n"
        "  kavri listen test\n"
        "  kavri listen orders alarms --json\n"
        "  kavri listen test --count 1 --timeout 5");
}

}  // namespace kavri::cli
