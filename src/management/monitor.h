// What `kavri monitor` does: asks a broker to be shown what passes, and prints it until it is
// enough.
#ifndef KAVRI_MANAGEMENT_MONITOR_H
#define KAVRI_MANAGEMENT_MONITOR_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "process/exit_status.h"

namespace kavri::management {

struct MonitorOptions {
    std::string socket;  // empty: found as every program finds it
    std::optional<std::string> category;
    std::optional<pid_t> process;
    std::optional<uid_t> user;
    std::optional<std::uint64_t> connection;
    unsigned payloadBytes = 0;
    bool json = false;
    std::optional<std::uint64_t> count;
    std::optional<double> timeoutSeconds;
};

// Throws CommandFailure where there is no broker to begin with, or it refuses.
process::ExitStatus runMonitor(const MonitorOptions& options);

}  // namespace kavri::management

#endif
