// Socket calls; see connection.h.
#include "core/connection/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "base/unix_address.h"
#include "wire/limits.h"

namespace kavri::core {

namespace {

// How often a broker whose queue of connections is full is tried again.
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
int connectSocket(int descriptor, const base::UnixAddress& address, const Waker& waker,
                  Clock::time_point deadline) {
    while (::connect(descriptor, address.get(), address.size()) != 0) {
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

Connection::Connection(base::Descriptor descriptor, SocketRecord& record)
    : descriptor_(std::move(descriptor)), record_(record) {
    record_.opened(descriptor_.get());
}

Connection::~Connection() {
    record_.closing(descriptor_.get());
}

Connection::Opened Connection::open(const std::string& address, const Waker& waker,
                                    Clock::time_point deadline, SocketRecord& record) {
    base::Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made.isOpen()) {
        return {nullptr, true, reasonOf(errno)};
    }
    std::unique_ptr<Connection> connection(new Connection(std::move(made), record));
    const int descriptor = connection->descriptor_.get();
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &wire::socketBufferBytes,
                 sizeof wire::socketBufferBytes);
    const int error = connectSocket(descriptor, base::UnixAddress(address), waker, deadline);
    if (error != 0) {
        return {nullptr, false, reasonOf(error)};
    }
    return {std::move(connection), false, {}};
}

Connection::Io Connection::read() {
    if (input_.isMalformed()) {
        return Io::lost;
    }
    FrameReader::Room room = input_.room();
    const ssize_t count =
        room.count == 1
            ? ::recv(descriptor_.get(), room.pieces[0].iov_base, room.pieces[0].iov_len, 0)
            : ::readv(descriptor_.get(), room.pieces.data(), room.count);
    if (count > 0) {
        input_.received(static_cast<std::size_t>(count));
        return Io::done;
    }
    return count < 0 && (errno == EAGAIN || errno == EINTR) ? Io::wouldBlock : Io::lost;
}

Connection::Io Connection::waitAndRead(const Waker& waker, Deadline deadline) {
    if (input_.isMalformed()) {
        return Io::lost;
    }
    Io io = Io::wouldBlock;
    const auto attempt = [this, &io] {
        io = read();
        return io != Io::wouldBlock;
    };
    if ((readsFirst_ && attempt()) || spin_.until(attempt)) {
        return io;
    }
    const Clock::time_point begin = Clock::now();
    std::array<pollfd, 2> waited{{{descriptor_.get(), POLLIN, 0}, {waker.descriptor(), POLLIN, 0}}};
    ::poll(waited.data(), waited.size(), pollTimeMs(deadline, begin));
    if (waited[0].revents == 0) {
        return Io::wouldBlock;
    }
    const Clock::duration slept = Clock::now() - begin;
    readsFirst_ = slept < shortestSleep;
    spin_.slept(slept);
    return read();
}

Connection::Io Connection::write(iovec*& pieces, std::size_t& count) {
    while (count > 0) {
        const ssize_t taken = writeSome(descriptor_.get(), pieces, count);
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
    std::array<pollfd, 2> waited{{{descriptor_.get(), wanted, 0}, {waker.descriptor(), POLLIN, 0}}};
    ::poll(waited.data(), waited.size(), pollTimeMs(deadline, Clock::now()));
}

void Connection::shutDown() {
    ::shutdown(descriptor_.get(), SHUT_RDWR);
}

}  // namespace kavri::core
