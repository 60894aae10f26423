// `kavri monitor`: what passes through the broker, a line for each frame.
#ifndef KAVRI_CLI_MONITOR_COMMAND_H
#define KAVRI_CLI_MONITOR_COMMAND_H

#include <CLI/CLI.hpp>

#include "management/monitor.h"

namespace kavri::cli {

void describeMonitor(CLI::App& command, management::MonitorOptions& options);

}  // namespace kavri::cli

#endif
