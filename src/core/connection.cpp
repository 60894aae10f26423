// One connection to the broker; see connection.h.
#include "core/connection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>
#include <thread>

#include "interfaces/limits.h"

namespace kavri::core {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

namespace {

constexpr std::size_t readBytes = 64 * interfaces::kibibyte;
constexpr std::size_t readBehindLargeBytes = 512;
// A broker whose queue of connections is full is asked again this often.
constexpr std::chrono::milliseconds connectPause{1};
// A wait that took less did not sleep: what it waited for was there already.
constexpr std::chrono::microseconds shortestSleep{2};

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

int pollTimeMs(Deadline deadline, Clock::time_point now) {
    if (!deadline) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now);
    return static_cast<int>(
        std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 1'000'000'000));
}

// 0, or the error.
int connectSocket(int descriptor, const std::string& path, const Waker& waker,
                  Clock::time_point deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    while (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
           0) {
        const int error = errno;
        const bool again = error == EAGAIN || error == EINTR;
        if (!again || Clock::now() >= deadline || waker.isWoken()) {
            return error;
        }
        std::this_thread::sleep_for(connectPause);
    }
    return 0;
}

// A single piece takes the kernel a shorter way.
ssize_t writeSome(int descriptor, iovec* pieces, std::size_t count) {
    if (count == 1) {
        return ::send(descriptor, pieces->iov_base, pieces->iov_len, MSG_NOSIGNAL);
    }
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    return ::sendmsg(descriptor, &message, MSG_NOSIGNAL);
}

}  // namespace

Waker::Waker() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

Waker::~Waker() {
    ::close(descriptor_);
}

void Waker::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(descriptor_, &one, sizeof one);
}

void Waker::reset() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = ::read(descriptor_, &count, sizeof count);
}

bool Waker::isWoken() const {
    pollfd looked{descriptor_, POLLIN, 0};
    return ::poll(&looked, 1, 0) == 1;
}

Connection::Opened Connection::open(const std::string& address, std::string_view role,
                                    std::string_view servedCategory, const Waker& waker,
                                    Clock::time_point deadline) {
    std::unique_ptr<Connection> made(new Connection);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        return {KAVRI_CORE_STATUS_OUT_OF_RESOURCES, reasonOf(errno), nullptr};
    }
    made->descriptor_ = descriptor;
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &interfaces::socketBufferBytes,
                 sizeof interfaces::socketBufferBytes);
    if (const int error = connectSocket(descriptor, address, waker, deadline); error != 0) {
        return {KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE, reasonOf(error), nullptr};
    }
    Refusal refusal = made->greet(role, {waker, deadline});
    if (refusal.status == KAVRI_CORE_STATUS_NO_ERROR && !servedCategory.empty()) {
        refusal = made->registerFor(servedCategory, {waker, deadline});
    }
    if (refusal.status != KAVRI_CORE_STATUS_NO_ERROR) {
        made = nullptr;
    }
    return {refusal.status, std::move(refusal.reason), std::move(made)};
}

Connection::Connection() : payloadLimitBytes_(interfaces::Limits{}.payloadBytes) {}

Connection::~Connection() {
    closeCopy();
}

Connection::Refusal Connection::greet(std::string_view role, Patience patience) {
    Frame hello;
    hello.type = FrameType::hello;
    hello.token = interfaces::protocolVersion;
    hello[Field::identifier] = role;
    Frame welcome;
    Refusal refusal = exchange(hello, FrameType::welcome, patience, welcome);
    if (refusal.status == KAVRI_CORE_STATUS_NO_ERROR &&
        welcome.token != interfaces::protocolVersion) {
        refusal = {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE,
                   "the broker speaks protocol version " + std::to_string(welcome.token)};
    }
    if (refusal.status == KAVRI_CORE_STATUS_NO_ERROR) {
        readGrantedLimits(welcome[Field::payload]);
    }
    dropFrame();
    return refusal;
}

Connection::Refusal Connection::registerFor(std::string_view category, Patience patience) {
    Frame registration;
    registration.type = FrameType::registration;
    registration[Field::category] = category;
    Frame acknowledgement;
    Refusal refusal = exchange(registration, FrameType::acknowledgement, patience, acknowledgement);
    if (refusal.status != KAVRI_CORE_STATUS_NO_ERROR) {
        return refusal;
    }
    const auto status = statusIn(acknowledgement);
    dropFrame();
    return {status, kavri_core_status_text(status)};
}

Connection::Refusal Connection::exchange(const Frame& frame, FrameType expected, Patience patience,
                                         Frame& answer) {
    std::string bytes;
    interfaces::appendEncoded(frame, bytes);
    iovec piece{bytes.data(), bytes.size()};
    iovec* pieces = &piece;
    std::size_t count = 1;
    while (write(pieces, count) == Io::wouldBlock && Clock::now() < patience.deadline &&
           !patience.waker.isWoken()) {
        waitToWrite(patience.waker, false, patience.deadline);
    }
    while (true) {
        if (const auto received = nextFrame()) {
            answer = *received;
            if (answer.type == expected) {
                return {};
            }
            if (answer.type == FrameType::goodbye) {
                return {failureIn(answer, KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE),
                        std::string(answer[Field::payload])};
            }
            return {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE,
                    "the broker answered with a frame out of place"};
        }
        const Io io = waitAndRead(patience.waker, patience.deadline);
        if (io == Io::lost) {
            return {malformed_ ? KAVRI_CORE_STATUS_IPC_INCOMPATIBLE
                               : KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE,
                    malformed_ ? "what listens there is no broker of this kind"
                               : "the broker closed the connection"};
        }
        if (io == Io::wouldBlock &&
            (Clock::now() >= patience.deadline || patience.waker.isWoken())) {
            return {KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE, "no answer in time"};
        }
    }
}

// Lines of name=value; names that this library does not know are for others.
void Connection::readGrantedLimits(std::string_view text) {
    constexpr std::string_view name = "payload_bytes=";
    const std::size_t found = text.find(name);
    if (found != std::string_view::npos) {
        const std::string_view value = text.substr(found + name.size());
        std::size_t granted = 0;
        if (std::from_chars(value.data(), value.data() + value.size(), granted).ec == std::errc()) {
            payloadLimitBytes_ = std::min(granted, interfaces::payloadCeilingBytes);
        }
    }
}

Connection::Io Connection::read() {
    if (malformed_) {
        return Io::lost;
    }
    makeRoom();
    const ssize_t count = readSome();
    if (count > 0) {
        const std::size_t large =
            std::min(static_cast<std::size_t>(count), largeBytes_ - largeFilled_);
        largeFilled_ += large;
        end_ += static_cast<std::size_t>(count) - large;
        return Io::done;
    }
    return count < 0 && (errno == EAGAIN || errno == EINTR) ? Io::wouldBlock : Io::lost;
}

// First what the large frame lacks; behind that only little, since another large
// one may follow, whose payload is to have its own place too.
ssize_t Connection::readSome() {
    char* const behind = input_.get() + end_;
    if (!largeBegun_) {
        return ::recv(descriptor_, behind, capacity_ - end_, 0);
    }
    std::array<iovec, 2> pieces{{{largePayload_.get() + largeFilled_, largeBytes_ - largeFilled_},
                                 {behind, std::min(capacity_ - end_, readBehindLargeBytes)}}};
    return ::readv(descriptor_, pieces.data(), pieces.size());
}

// There is room for a whole read, and for the whole of the frame that has begun,
// unless that is a large one.
void Connection::makeRoom() {
    const std::size_t held = end_ - begin_;
    std::size_t wanted = readBytes;
    if (held >= interfaces::headerBytes &&
        !interfaces::measure(input_.get() + begin_, payloadLimitBytes_).error) {
        const interfaces::Extent extent = interfaces::extentOf(input_.get() + begin_);
        const bool isLarge = extent.payloadBytes >= interfaces::largeFrameBytes;
        wanted = std::max(wanted, extent.headBytes + (isLarge ? 0 : extent.payloadBytes));
    }
    if (wanted > capacity_) {
        auto larger = std::make_unique_for_overwrite<char[]>(wanted);
        std::copy_n(input_.get() + begin_, held, larger.get());
        input_ = std::move(larger);
        capacity_ = wanted;
    } else if (held == 0 || begin_ + wanted > capacity_ || end_ == capacity_) {
        std::memmove(input_.get(), input_.get() + begin_, held);
    } else {
        return;
    }
    begin_ = 0;
    end_ = held;
}

Connection::Io Connection::waitAndRead(const Waker& waker, Deadline deadline) {
    if (malformed_) {
        return Io::lost;
    }
    Io io = Io::wouldBlock;
    const auto attempt = [this, &io] {
        io = read();
        return io != Io::wouldBlock;
    };
    if ((looksFirst_ && attempt()) || spin_.until(attempt)) {
        return io;
    }
    const Clock::time_point begin = Clock::now();
    std::array<pollfd, 2> waited{{{descriptor_, POLLIN, 0}, {waker.descriptor(), POLLIN, 0}}};
    ::poll(waited.data(), waited.size(), pollTimeMs(deadline, begin));
    if (waited[0].revents == 0) {
        return Io::wouldBlock;
    }
    const Clock::duration slept = Clock::now() - begin;
    looksFirst_ = slept < shortestSleep;
    spin_.slept(slept);
    return read();
}

std::optional<Frame> Connection::nextFrame() {
    if (malformed_) {
        return std::nullopt;
    }
    if (largeBegun_) {
        return largeFilled_ < largeBytes_ ? std::nullopt
                                          : decoded(largeHead_.data(), largePayload_.get());
    }
    const std::size_t held = end_ - begin_;
    if (held < interfaces::headerBytes) {
        return std::nullopt;
    }
    const char* bytes = input_.get() + begin_;
    const auto measured = interfaces::measure(bytes, payloadLimitBytes_);
    if (measured.error) {
        malformed_ = true;
        return std::nullopt;
    }
    if (held < measured.frameBytes) {
        const interfaces::Extent extent = interfaces::extentOf(bytes);
        if (extent.payloadBytes >= interfaces::largeFrameBytes && held >= extent.headBytes) {
            beginLarge(extent);
        }
        return std::nullopt;
    }
    frameBytes_ = measured.frameBytes;
    return decoded(bytes);
}

std::optional<Frame> Connection::decoded(const char* bytes, const char* payload) {
    auto frame = interfaces::decode(bytes, payload);
    malformed_ = !frame;
    return frame;
}

void Connection::dropFrame() {
    if (largeBegun_) {
        largeBegun_ = false;
        largeBytes_ = largeFilled_ = 0;
        largePayload_ = nullptr;
        return;
    }
    begin_ += std::exchange(frameBytes_, 0);
}

void Connection::beginLarge(interfaces::Extent extent) {
    const char* const bytes = input_.get() + begin_;
    largeHead_.assign(bytes, extent.headBytes);
    largePayload_ = newText(extent.payloadBytes);
    largeBytes_ = extent.payloadBytes;
    largeFilled_ = end_ - begin_ - extent.headBytes;
    std::memcpy(largePayload_.get(), bytes + extent.headBytes, largeFilled_);
    largeBegun_ = true;
    begin_ = end_;
}

Connection::Io Connection::write(iovec*& pieces, std::size_t& count) {
    while (count > 0) {
        const ssize_t taken = writeSome(descriptor_, pieces, count);
        if (taken < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN ? Io::wouldBlock : Io::lost;
        }
        auto left = static_cast<std::size_t>(taken);
        while (count > 0 && left >= pieces->iov_len) {
            left -= pieces->iov_len;
            ++pieces;
            --count;
        }
        if (count > 0) {
            pieces->iov_base = static_cast<char*>(pieces->iov_base) + left;
            pieces->iov_len -= left;
        }
    }
    return Io::done;
}

void Connection::waitToWrite(const Waker& waker, bool orToRead, Deadline deadline) {
    const auto wanted = static_cast<short>(orToRead ? POLLIN | POLLOUT : POLLOUT);
    std::array<pollfd, 2> waited{{{descriptor_, wanted, 0}, {waker.descriptor(), POLLIN, 0}}};
    ::poll(waited.data(), waited.size(), pollTimeMs(deadline, Clock::now()));
}

void Connection::shutDown() {
    ::shutdown(descriptor_, SHUT_RDWR);
}

void Connection::closeCopy() {
    if (descriptor_ >= 0) {
        ::close(std::exchange(descriptor_, -1));
    }
}

}  // namespace kavri::core
