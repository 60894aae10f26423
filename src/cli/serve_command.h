// `kavri serve`: a service whose answers a command gives.
#ifndef KAVRI_CLI_SERVE_COMMAND_H
#define KAVRI_CLI_SERVE_COMMAND_H

#include <CLI/CLI.hpp>

#include "terminal/serve/serve.h"

namespace kavri::cli {

void describeServe(CLI::App& command, terminal::ServeOptions& options);

}  // namespace kavri::cli

#endif
