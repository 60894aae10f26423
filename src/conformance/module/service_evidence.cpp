// Reading the service's record; see service_evidence.h.
#include "conformance/module/service_evidence.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "base/pipe.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

// A case sends 13 requests at most. Of a library that floods the service the rest is counted.
constexpr std::size_t servedLimit = 1000;
// What is late comes soon after its case; and a module may run the cases very often.
constexpr std::size_t earlierConnectionsLimit = 16;
constexpr std::size_t shownBytes = 200;

base::Descriptor openAtEnd(const std::filesystem::path& file) {
    base::Descriptor source(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!source.isOpen() || lseek(source.get(), 0, SEEK_END) < 0) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("no service record {}: {}; start the broker or the test service with "
                        "--service-record, and give the same file here",
                        file.string(), std::generic_category().message(errno)));
    }
    return source;
}

}  // namespace

ServiceEvidence::ServiceEvidence(base::Descriptor pipe) : source_(std::move(pipe)), isPipe_(true) {
    base::setNonBlocking(source_);
}

ServiceEvidence::ServiceEvidence(const std::filesystem::path& file)
    : source_(openAtEnd(file)), isPipe_(false) {}

void ServiceEvidence::read() {
    std::array<char, 65536> bytes;
    for (ssize_t count = 1; count > 0 && source_.isOpen();) {
        count = ::read(source_.get(), bytes.data(), bytes.size());
        lines_.add({bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0},
                   [this](std::string_view line) { addLine(line); });
        if (count == 0 && isPipe_) {
            source_.close();  // whoever wrote has ended
        }
    }
}

void ServiceEvidence::addLine(std::string_view line) {
    std::optional<ServedRequest> served = parseServedRequest(line);
    if (!served) {
        if (malformed_.empty()) {
            malformed_ = line.substr(0, shownBytes);
        }
        return;
    }
    hasSeenRequests_ = true;
    if (served->process && served->process == endedModule_) {
        return;
    }
    if (served_.size() < servedLimit) {
        served_.push_back(std::move(*served));
    } else {
        ++leftOut_;
    }
}

std::vector<std::string> ServiceEvidence::compare(const CaseTraffic& traffic,
                                                  Clock::time_point deadline, int interrupt) {
    read();
    dropLateRequests(traffic);
    while (traffic.mayBeUnderWay(served_.size()) && source_.isOpen() && Clock::now() < deadline) {
        pollfd stop = {interrupt, POLLIN, 0};
        if (poll(&stop, 1, 1) > 0) {
            break;
        }
        read();
        dropLateRequests(traffic);
    }
    std::vector<std::string> lines = disagreements(traffic, served_);
    if (leftOut_ > 0) {
        lines.push_back(fmt::format("the service got {} further requests", leftOut_));
    }
    if (!malformed_.empty()) {
        lines.push_back("the service's record has a line of another form: " + malformed_);
    }
    return lines;
}

// A case that failed may have ended before all of its requests arrived. The next one has a
// connection of its own, by which they are told apart.
void ServiceEvidence::dropLateRequests(const CaseTraffic& traffic) {
    const auto isLate = [this](const ServedRequest& each) {
        return std::ranges::find(earlierConnections_, each.connection) != earlierConnections_.end();
    };
    if (traffic.requests.empty() || !std::ranges::all_of(served_, isLate)) {
        std::erase_if(served_, isLate);
    }
}

void ServiceEvidence::beginCase() {
    read();
    for (const ServedRequest& each : served_) {
        if (!each.connection.empty() &&
            (earlierConnections_.empty() || earlierConnections_.back() != each.connection)) {
            earlierConnections_.push_back(each.connection);
        }
    }
    while (earlierConnections_.size() > earlierConnectionsLimit) {
        earlierConnections_.pop_front();
    }
    served_.clear();
    leftOut_ = 0;
    malformed_.clear();
}

void ServiceEvidence::endModule(pid_t process) {
    beginCase();
    earlierConnections_.clear();
    endedModule_ = process;
}

}  // namespace kavri::conformance
