// The broker of a run: one of the tool's own on a socket in a fresh folder, or
// one that is there already.
#ifndef KAVRI_CLI_BROKER_ACCESS_H
#define KAVRI_CLI_BROKER_ACCESS_H

#include <filesystem>
#include <string_view>

#include "cli/child_process.h"
#include "cli/run_limits.h"
#include "cli/temporary_folder.h"

namespace kavri::cli {

// Stands in the line with which the broker says that it is ready.
inline constexpr std::string_view brokerReadyText = "ready on ";

// A broker with the test service in it, for as long as this lives.
class OwnBroker {
  public:
    // Returns when the broker is ready. Throws CommandFailure when it does not
    // become that.
    OwnBroker(const std::filesystem::path& program, const RunLimits& limits);
    OwnBroker(const OwnBroker&) = delete;
    OwnBroker& operator=(const OwnBroker&) = delete;
    // Stops the broker, by force where it does not stop when asked.
    ~OwnBroker();

    const std::filesystem::path& socket() const { return socket_; }
    ChildProcess& process() { return process_; }

  private:
    void awaitReady(const RunLimits& limits);

    TemporaryFolder folder_;
    std::filesystem::path socket_;
    ChildProcess process_;
};

// Throws CommandFailure, with what to do, where nobody takes connections at
// the socket.
void checkBrokerListens(const std::filesystem::path& socket);

}  // namespace kavri::cli

#endif
