// Starting a broker, and knocking at one; see broker_access.h.
#include "cli/broker_access.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "cli/exit_status.h"
#include "cli/exit_text.h"
#include "interfaces/address.h"

namespace kavri::cli {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds readyTime{10000};
constexpr milliseconds stopTime{5000};

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

std::filesystem::path checkedSocket(const std::filesystem::path& socket, const char* advice) {
    if (const auto error = interfaces::addressError(socket.string())) {
        throw CommandFailure(ExitStatus::couldNotRun,
                             fmt::format("socket '{}': {}{}", socket.string(), *error, advice));
    }
    return socket;
}

// What a failed connect means to somebody who named the socket.
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
                "nobody listens there; start one with 'kavri-broker --test-service --socket {}'",
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
      process_({.program = program,
                .arguments = {"--test-service", "--socket", socket_.string()},
                .interruptDescriptor = limits.signals().descriptor()}) {
    awaitReady(limits);
}

OwnBroker::~OwnBroker() {
    process_.signal(SIGTERM);
    process_.wait(stopTime);
}

void OwnBroker::awaitReady(const RunLimits& limits) {
    const milliseconds limit = std::min(readyTime, limits.left());
    if (process_.waitForError(std::string(brokerReadyText), limit)) {
        return;
    }
    if (const auto exit = process_.wait(milliseconds(0))) {
        const std::string reason = firstLine(process_.error());
        throw CommandFailure(ExitStatus::couldNotRun,
                             fmt::format("the broker {} before it was ready{}{}", exitText(*exit),
                                         reason.empty() ? "" : ": ", reason));
    }
    if (limits.signals().received() || limit < readyTime) {
        limits.giveUp("before the broker was ready");
    }
    throw CommandFailure(
        ExitStatus::couldNotRun,
        fmt::format("the broker was not ready within {} s; try 'kavri-broker --test-service' by "
                    "itself",
                    std::chrono::duration_cast<std::chrono::seconds>(readyTime).count()));
}

void checkBrokerListens(const std::filesystem::path& socket) {
    checkedSocket(socket, "");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socket.c_str(), socket.native().size());
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int failed =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    close(descriptor);
    // A full queue of connections is a sign of life.
    if (failed != 0 && error != EAGAIN) {
        throw CommandFailure(ExitStatus::couldNotRun,
                             fmt::format("no broker at {}: {}; {}", socket.string(),
                                         std::generic_category().message(error),
                                         connectAdvice(error, socket.string())));
    }
}

}  // namespace kavri::cli
