// The options of `kavri publish`; see publish_command.h.
#include "cli/publish_command.h"

#include "cli/socket_option.h"

namespace kavri::cli {

void describePublish(CLI::App& command, terminal::PublishOptions& options) {
    command.add_option("CATEGORY", options.category, "Whose event it is")
        ->required()
        ->check(base::notEmpty());
    command.add_option("IDENTIFIER", options.identifier, "Which event it is")->required();
    command.add_option("PAYLOAD", options.payload,
                       "What goes with it; - for standard input [empty]");
    describeSocket(command, options.socket);
    command.footer(
        "Serves the category while it publishes, and returns once the broker has passed the\n"
        "event on to those who listen.\n\n"
        "Exit status: 0 published; 3 not published: no broker, or another program serves the\n"
        "category; 4 unknown, since the broker went away; 64 the command line is wrong.\n\n"
        "Examples:\n"
        "  kavri publish alarms fire 'third floor'\n"
        "  kavri publish reports daily - < report");
}

}  // namespace kavri::cli
