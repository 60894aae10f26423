// The broker of a run: one that the run starts, on a socket in a temporary folder, or one
// that is running already.
#ifndef KAVRI_CONFORMANCE_MODULE_BROKER_ACCESS_H
#define KAVRI_CONFORMANCE_MODULE_BROKER_ACCESS_H

#include <filesystem>
#include <string_view>

#include "base/pipe.h"
#include "conformance/module/run_limits.h"
#include "conformance/module/service_evidence.h"
#include "process/child_process.h"
#include "process/temporary_folder.h"

namespace kavri::conformance {

// Part of the log line with which the broker reports that it is ready.
inline constexpr std::string_view brokerReadyText = "ready on ";

// What a run of the module has at the other end. Owns none of it.
struct OtherEnd {
    process::ChildProcess* broker = nullptr;  // null: not the run's own
    ServiceEvidence* evidence = nullptr;      // null: nothing is known of what arrives there
    bool mustConfirm = false;                 // without evidence no case passes
};

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
    const ServiceEvidence& evidence() const { return evidence_; }
    OtherEnd asOtherEnd() { return {&process_, &evidence_}; }

  private:
    void awaitReady(const RunLimits& limits);

    process::TemporaryFolder folder_;
    std::filesystem::path socket_;
    // The module does not have it, so a library under test cannot write the record.
    base::Pipe recordPipe_;
    process::ChildProcess process_;
    ServiceEvidence evidence_;
};

// Throws CommandFailure, with what to do, where no program listens on the socket.
void checkBrokerListens(const std::filesystem::path& socket);

}  // namespace kavri::conformance

#endif
