// Starting a broker, and trying to connect to one; see broker_access.h.
#include "conformance/module/broker_access.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "base/descriptor.h"
#include "base/unix_address.h"
#include "process/exit_status.h"
#include "process/exit_text.h"
#include "wire/address.h"

namespace kavri::conformance {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds readyTime{10000};
constexpr milliseconds stopTime{5000};

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

std::filesystem::path checkedSocket(const std::filesystem::path& socket, const char* advice) {
    if (const auto error = wire::addressError(socket.string())) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("socket '{}': {}{}", socket.string(), *error, advice));
    }
    return socket;
}

// What the user can do about a failed connect.
std::string connectAdvice(int error, const std::string& socket) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return fmt::format("start one with 'kavri-broker --test-service --socket {}'", socket);
        case ECONNREFUSED:
            if (!std::filesystem::is_socket(socket)) {
                return "that is no socket; check the path";
            }
            return fmt::format(
                "no program listens there; start one with 'kavri-broker --test-service --socket "
                "{}'",
                socket);
        case EACCES:
            return "run as the user that the broker runs as, or have it allow this one";
        default:
            return "check the path";
    }
}

}  // namespace

OwnBroker::OwnBroker(const std::filesystem::path& program, const RunLimits& limits)
    : socket_(checkedSocket(folder_.path() / "broker.sock", "; set TMPDIR to a shorter folder")),
      recordPipe_(base::Pipe::make()),
      process_({.program = program,
                .arguments = {"--test-service", "--socket", socket_.string(), "--service-record",
                              fmt::format("/dev/fd/{}", recordPipe_.writeEnd.get())},
                .inheritedDescriptors = {recordPipe_.writeEnd.get()},
                .interruptDescriptor = limits.signals().descriptor()}),
      evidence_(std::move(recordPipe_.readEnd)) {
    recordPipe_.writeEnd.close();
    awaitReady(limits);
}

OwnBroker::~OwnBroker() {
    // A broker that waits for room in the pipe could not stop.
    evidence_.close();
    process_.stop(stopTime);
}

void OwnBroker::awaitReady(const RunLimits& limits) {
    const milliseconds limit = std::min(readyTime, limits.left());
    if (process_.waitForError(std::string(brokerReadyText), limit)) {
        return;
    }
    if (const auto exit = process_.wait(milliseconds(0))) {
        const std::string reason = firstLine(process_.error());
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("the broker {} before it was ready{}{}", process::exitText(*exit),
                        reason.empty() ? "" : ": ", reason));
    }
    if (limits.signals().received() || limit < readyTime) {
        limits.giveUp("before the broker was ready");
    }
    throw process::CommandFailure(
        process::ExitStatus::couldNotRun,
        fmt::format("the broker was not ready within {} s; try 'kavri-broker --test-service' by "
                    "itself",
                    std::chrono::duration_cast<std::chrono::seconds>(readyTime).count()));
}

void checkBrokerListens(const std::filesystem::path& socket) {
    checkedSocket(socket, "");
    const base::UnixAddress address(socket.native());
    const base::Descriptor descriptor(
        ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!descriptor.isOpen()) {
        throw std::system_error(errno, std::generic_category(), "cannot make a socket");
    }
    const int failed = connect(descriptor.get(), address.get(), base::UnixAddress::size());
    const int error = errno;
    // A full backlog shows that a program listens.
    if (failed != 0 && error != EAGAIN) {
        throw process::CommandFailure(process::ExitStatus::couldNotRun,
                                      fmt::format("no broker at {}: {}; {}", socket.string(),
                                                  std::generic_category().message(error),
                                                  connectAdvice(error, socket.string())));
    }
}

}  // namespace kavri::conformance
