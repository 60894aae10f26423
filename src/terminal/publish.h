// `kavri publish`: publishes one event of a category, which it serves for as long as that
// takes.
#ifndef KAVRI_TERMINAL_PUBLISH_H
#define KAVRI_TERMINAL_PUBLISH_H

#include <string>

#include "process/exit_status.h"

namespace kavri::terminal {

struct PublishOptions {
    std::string socket;  // empty: found as every program finds it
    std::string category;
    std::string identifier;
    std::string payload;  // "-": what standard input has
};

// Throws CommandFailure where the event was not published, or where that is not known.
process::ExitStatus runPublish(const PublishOptions& options);

}  // namespace kavri::terminal

#endif
