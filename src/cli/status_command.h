// `kavri status`: what a running broker is doing.
#ifndef KAVRI_CLI_STATUS_COMMAND_H
#define KAVRI_CLI_STATUS_COMMAND_H

#include <CLI/CLI.hpp>

#include "management/status.h"

namespace kavri::cli {

void describeStatus(CLI::App& command, management::StatusOptions& options);

}  // namespace kavri::cli

#endif
