// `kavri serve`: a responder whose answers are given by a command, by a fixed text, or by the
// request itself.
#ifndef KAVRI_TERMINAL_SERVE_SERVE_H
#define KAVRI_TERMINAL_SERVE_SERVE_H

#include <optional>
#include <string>

#include "process/exit_status.h"

namespace kavri::terminal {

struct ServeOptions {
    std::string socket;  // empty: found as every program finds it
    std::string category;
    std::optional<std::string> command;
    std::optional<std::string> answer;
    double timeoutSeconds = 10;  // of one run of the command
    unsigned jobs = 1;
};

// Until a signal stops it. Throws CommandFailure where it cannot serve.
process::ExitStatus runServe(const ServeOptions& options);

}  // namespace kavri::terminal

#endif
