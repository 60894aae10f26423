// `kavri request`: sends a request and prints the payload of its answer, or sends many and
// prints what became of them.
#ifndef KAVRI_TERMINAL_REQUEST_REQUEST_H
#define KAVRI_TERMINAL_REQUEST_REQUEST_H

#include <cstddef>
#include <optional>
#include <string>

#include "process/exit_status.h"

namespace kavri::terminal {

struct RequestOptions {
    std::string socket;  // empty: found as every program finds it
    std::string category;
    std::string command;
    std::string payload;         // "-": what standard input has
    double timeoutSeconds = 10;  // of each request
    std::optional<std::size_t> count;
    std::optional<double> perSecond;
    bool json = false;
};

// The exit status says what became of the request or, of many, of the one that fared worst.
// Throws CommandFailure where nothing can be sent.
process::ExitStatus runRequest(const RequestOptions& options);

}  // namespace kavri::terminal

#endif
