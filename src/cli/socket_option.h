// The option that says where the broker is, the same for all commands.
#ifndef KAVRI_CLI_SOCKET_OPTION_H
#define KAVRI_CLI_SOCKET_OPTION_H

#include <CLI/CLI.hpp>
#include <string>

#include "base/command_line.h"

namespace kavri::cli {

inline void describeSocket(CLI::App& command, std::string& socket) {
    command
        .add_option("--socket", socket,
                    "The broker's socket; otherwise $KAVRI_BROKER and the usual places")
        ->type_name("PATH")
        ->check(base::notEmpty());
}

}  // namespace kavri::cli

#endif
