// `kavri request`: one request to a service, or many to try it out.
#ifndef KAVRI_CLI_REQUEST_COMMAND_H
#define KAVRI_CLI_REQUEST_COMMAND_H

#include <CLI/CLI.hpp>

#include "terminal/request/request.h"

namespace kavri::cli {

void describeRequest(CLI::App& command, terminal::RequestOptions& options);

}  // namespace kavri::cli

#endif
