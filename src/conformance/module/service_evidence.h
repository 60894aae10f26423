// What reached the test service, from the record that the service writes while the module
// runs: a pipe from a broker of the run's own, or a file that somebody else's service
// appends to. Holds what belongs to the current case.
#ifndef KAVRI_CONFORMANCE_MODULE_SERVICE_EVIDENCE_H
#define KAVRI_CONFORMANCE_MODULE_SERVICE_EVIDENCE_H

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/line_buffer.h"
#include "conformance/cases/service_agreement.h"

namespace kavri::conformance {

class ServiceEvidence {
  public:
    using Clock = std::chrono::steady_clock;

    // The reading end of a pipe. Throws std::system_error.
    explicit ServiceEvidence(base::Descriptor pipe);
    // What is appended to the file from now on. Throws CommandFailure where it cannot be read.
    explicit ServiceEvidence(const std::filesystem::path& file);

    // Readable when there is more; -1 for a file, which always is.
    int descriptor() const { return isPipe_ ? source_.get() : -1; }

    // Takes what is there.
    void read();
    // Compares with what went through the library. Waits for requests that may still be on
    // their way, until the deadline or until `interrupt` is readable.
    std::vector<std::string> compare(const CaseTraffic& traffic, Clock::time_point deadline,
                                     int interrupt);
    // What comes from now on belongs to another case.
    void beginCase();
    // What the module's process had sent, and still comes, belongs to no case.
    void endModule(pid_t process);
    // Whether any request has reached the service so far.
    bool hasSeenRequests() const { return hasSeenRequests_; }
    // The service may write no more.
    void close() { source_.close(); }

  private:
    void addLine(std::string_view line);
    void dropLateRequests(const CaseTraffic& traffic);

    base::Descriptor source_;
    bool isPipe_;
    base::LineBuffer lines_;
    std::vector<ServedRequest> served_;
    std::size_t leftOut_ = 0;  // beyond those that are kept
    std::string malformed_;    // the first line of another form; empty: none
    bool hasSeenRequests_ = false;
    std::deque<std::string> earlierConnections_;  // of the cases before, in this module
    std::optional<pid_t> endedModule_;
};

}  // namespace kavri::conformance

#endif
