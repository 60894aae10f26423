// `kavri listen`: prints the events of some categories as they come.
#ifndef KAVRI_TERMINAL_LISTEN_H
#define KAVRI_TERMINAL_LISTEN_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "process/exit_status.h"

namespace kavri::terminal {

struct ListenOptions {
    std::string socket;  // empty: found as every program finds it
    std::vector<std::string> categories;
    std::optional<std::size_t> count;  // end after so many events
    std::optional<double> timeoutSeconds;
    bool json = false;
};

// Passed where it was ended by the count, by the time alone, or by a reader who left; ended
// where the time was over before the count was reached. Throws CommandFailure.
process::ExitStatus runListen(const ListenOptions& options);

}  // namespace kavri::terminal

#endif
