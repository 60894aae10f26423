// The broker of a run: one that the run starts, on a socket in a temporary folder, or one
// that is running already.
#ifndef KAVRI_CONFORMANCE_MODULE_BROKER_ACCESS_H
#define KAVRI_CONFORMANCE_MODULE_BROKER_ACCESS_H

#include <filesystem>
#include <string>
#include <string_view>

#include "conformance/module/run_limits.h"
#include "process/child_process.h"
#include "process/temporary_folder.h"

namespace kavri::conformance {

// Part of the log line with which the broker reports that it is ready.
inline constexpr std::string_view brokerReadyText = "ready on ";

// A broker that hosts the test service, as long as this lives.
class OwnBroker {
  public:
    // Returns when the broker is ready; throws CommandFailure where it does not become so.
    OwnBroker(const std::filesystem::path& program, const RunLimits& limits);
    OwnBroker(const OwnBroker&) = delete;
    OwnBroker& operator=(const OwnBroker&) = delete;
    // Stops the broker, and kills it where it does not stop in time.
    ~OwnBroker();

    const std::filesystem::path& socket() const { return socket_; }
    process::ChildProcess& process() { return process_; }

  private:
    void awaitReady(const RunLimits& limits);

    process::TemporaryFolder folder_;
    std::filesystem::path socket_;
    process::ChildProcess process_;
};

// Throws CommandFailure, with what to do, where no program listens on the socket.
void checkBrokerListens(const std::filesystem::path& socket);

// Throws CommandFailure where our own library cannot connect to the broker at the
// socket, as when the broker is suspended or is another program.
void checkBrokerAnswers(const std::string& socket);

}  // namespace kavri::conformance

#endif
