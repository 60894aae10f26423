// Connecting, the handshake and frames within a deadline; see connection.h.
#include "management/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "base/bounded_text.h"
#include "base/printable.h"
#include "base/unix_address.h"
#include "wire/address.h"
#include "wire/frame_assembler.h"
#include "wire/limits.h"

namespace kavri::management {

using wire::Field;
using wire::Frame;
using wire::FrameType;

namespace {

// Of what a manager is sent; reports are far shorter.
constexpr std::size_t longestPayloadBytes = 1 * wire::mebibyte;
constexpr std::size_t readBytes = 64 * wire::kibibyte;
constexpr std::size_t longestShownReason = 200;

std::string shown(std::string_view text) {
    return base::bounded(base::printable(text), longestShownReason);
}

std::chrono::milliseconds until(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

}  // namespace

Connection::Connection(const std::string& path, Clock::time_point deadline)
    : path_(path), allowed_(until(deadline)), input_(readBytes) {
    connect(deadline);
    greet(deadline);
}

void Connection::fail(FailureKind kind, const std::string& what) const {
    throw Failure(kind, "broker at " + shown(path_) + ": " + what);
}

void Connection::failToConnect(int error) const {
    const std::string reason = std::generic_category().message(error);
    if (error == EACCES || error == EPERM) {
        fail(FailureKind::refused,
             reason +
                 ": run this as root or as the broker's user, or have its configuration "
                 "name you in 'connect' and 'manage'");
    }
    fail(FailureKind::unreachable,
         reason + ": start one with 'kavri-broker', or name its socket with --socket");
}

void Connection::failAsSilent() const {
    std::string seconds = std::to_string(static_cast<double>(allowed_.count()) / 1000);
    seconds.erase(seconds.find_last_not_of('0') + 1);
    if (seconds.ends_with('.')) {
        seconds.pop_back();
    }
    fail(FailureKind::silent, "no answer within " + seconds +
                                  " s: see whether its process runs and what its log says, or "
                                  "allow more with --timeout");
}

void Connection::failAsNonsense() const {
    fail(FailureKind::nonsense,
         "what it says is not kavri's protocol: name the socket of a kavri broker with --socket");
}

void Connection::failByGoodbye(const Frame& goodbye) const {
    const std::string_view reason = goodbye[Field::payload];
    const bool isGreeted = !identity_.empty();
    if (goodbye.status == KAVRI_CORE_STATUS_IPC_REFUSED && reason.starts_with("malformed") &&
        !isGreeted) {
        fail(FailureKind::refused,
             "it is of an older version, which has no managers: install the present one and "
             "restart it");
    }
    if (goodbye.status == KAVRI_CORE_STATUS_IPC_REFUSED) {
        fail(FailureKind::refused, shown(reason) +
                                       ": run this as root or as the broker's user, or have its "
                                       "configuration name you in 'connect' and 'manage'");
    }
    if (goodbye.status == KAVRI_CORE_STATUS_IPC_OVERLOADED && !isGreeted) {
        fail(FailureKind::refused,
             shown(reason) + ": raise the limit in its configuration, or end some programs");
    }
    if (goodbye.status == KAVRI_CORE_STATUS_IPC_INCOMPATIBLE) {
        fail(FailureKind::refused, shown(reason) + ": install the same version of both");
    }
    fail(FailureKind::unreachable, "it closed the connection: " + shown(reason) + ": see its log");
}

// A broker whose backlog is full lets connect wait, for which the kernel takes a time limit.
void Connection::connect(Clock::time_point deadline) {
    if (const auto error = wire::addressError(path_)) {
        throw Failure(FailureKind::unreachable, *error);
    }
    const base::UnixAddress address(path_);
    socket_ = base::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket_.isOpen()) {
        failToConnect(errno);
    }
    while (true) {
        const std::chrono::milliseconds left = until(deadline);
        const timeval limit{.tv_sec = left.count() / 1000,
                            .tv_usec = std::max<suseconds_t>(left.count() % 1000 * 1000, 1)};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (::connect(socket_.get(), address.get(), base::UnixAddress::size()) == 0) {
            return;
        }
        if (errno == EAGAIN) {
            failAsSilent();
        }
        if (errno != EINTR) {
            failToConnect(errno);
        }
    }
}

void Connection::greet(Clock::time_point deadline) {
    Frame hello;
    hello.type = FrameType::hello;
    hello.token = wire::protocolVersion;
    hello[Field::identifier] = "manager";
    send(hello);
    const Frame welcome = receive(deadline);
    if (welcome.type != FrameType::welcome || welcome.token != wire::protocolVersion ||
        welcome[Field::uuid].empty()) {
        failAsNonsense();
    }
    identity_ = welcome[Field::uuid];
}

// What a broker says before it closes is still to be read, so that it is no failure here if
// it has closed.
void Connection::send(const Frame& frame) {
    std::string bytes;
    wire::appendEncoded(frame, bytes);
    for (std::string_view rest = bytes; !rest.empty();) {
        const ssize_t count = ::send(socket_.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            failAsSilent();
        } else if (errno != EINTR) {
            return;
        }
    }
}

Frame Connection::receive(Clock::time_point deadline) {
    while (true) {
        if (const auto frame = takeBuffered()) {
            return *frame;
        }
        if (!waitToRead(deadline)) {
            failAsSilent();
        }
        readSome();
    }
}

std::optional<Frame> Connection::receiveNow() {
    if (const auto frame = takeBuffered()) {
        return frame;
    }
    return readSome() ? takeBuffered() : std::nullopt;
}

// Where no frame is complete, there is room for the rest of one afterwards.
std::optional<Frame> Connection::takeBuffered() {
    using State = wire::FirstFrame::State;
    begin_ += std::exchange(taken_, 0);
    const wire::FirstFrame first =
        wire::firstFrame(input_.data() + begin_, end_ - begin_, longestPayloadBytes);
    if (first.state == State::malformed) {
        failAsNonsense();
    }
    if (first.state != State::complete) {
        std::memmove(input_.data(), input_.data() + begin_, end_ - begin_);
        end_ -= std::exchange(begin_, 0);
        input_.resize(std::max(input_.size(), first.frameBytes));
        return std::nullopt;
    }
    taken_ = first.frameBytes;
    const auto frame = wire::decode(input_.data() + begin_);
    if (!frame) {
        failAsNonsense();
    }
    if (frame->type == FrameType::goodbye) {
        failByGoodbye(*frame);
    }
    return frame;
}

// Whether there was something to be read.
bool Connection::readSome() {
    const ssize_t count =
        ::recv(socket_.get(), input_.data() + end_, input_.size() - end_, MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) {
        fail(FailureKind::unreachable, "it closed the connection: see its log");
    }
    end_ += count > 0 ? static_cast<std::size_t>(count) : 0;
    return count > 0;
}

// One that says something now and then, and never all, has no more time than one that is
// silent.
bool Connection::waitToRead(Clock::time_point deadline) const {
    pollfd waited{socket_.get(), POLLIN, 0};
    while (true) {
        const auto left =
            std::min<std::chrono::milliseconds>(until(deadline), std::chrono::hours(1));
        if (left.count() == 0) {
            return false;
        }
        if (::poll(&waited, 1, static_cast<int>(left.count())) > 0) {
            return true;
        }
    }
}

}  // namespace kavri::management
