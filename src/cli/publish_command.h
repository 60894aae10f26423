// `kavri publish`: one event of a category.
#ifndef KAVRI_CLI_PUBLISH_COMMAND_H
#define KAVRI_CLI_PUBLISH_COMMAND_H

#include <CLI/CLI.hpp>

#include "terminal/publish.h"

namespace kavri::cli {

void describePublish(CLI::App& command, terminal::PublishOptions& options);

}  // namespace kavri::cli

#endif
