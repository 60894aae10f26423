// `kavri listen`: the events of some categories as they come.
#ifndef KAVRI_CLI_LISTEN_COMMAND_H
#define KAVRI_CLI_LISTEN_COMMAND_H

#include <CLI/CLI.hpp>

#include "terminal/listen.h"

namespace kavri::cli {

void describeListen(CLI::App& command, terminal::ListenOptions& options);

}  // namespace kavri::cli

#endif
