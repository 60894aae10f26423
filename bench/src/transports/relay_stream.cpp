// Messages over a stream socket; see relay_stream.h.
#include "transports/relay_stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/unix_address.h"
#include "transports/transport.h"

namespace kavri::bench {

std::size_t RelayInput::wanted() const {
    if (held() < sizeof(RelayHeader)) {
        return sizeof(RelayHeader);
    }
    RelayHeader header;
    std::memcpy(&header, bytes_.get() + begin_, sizeof header);
    return sizeof header + header.payloadBytes;
}

std::span<char> RelayInput::room() {
    if (begin_ == end_) {
        begin_ = end_ = 0;
    }
    const std::size_t needed = std::max(wanted(), relayReadBytes);
    if (needed > capacity_) {
        auto larger = std::make_unique_for_overwrite<char[]>(needed);
        std::copy_n(bytes_.get() + begin_, held(), larger.get());
        bytes_ = std::move(larger);
        capacity_ = needed;
    } else if (begin_ + needed > capacity_ || end_ == capacity_) {
        std::memmove(bytes_.get(), bytes_.get() + begin_, held());
    } else {
        return {bytes_.get() + end_, capacity_ - end_};
    }
    end_ -= begin_;
    begin_ = 0;
    return {bytes_.get() + end_, capacity_ - end_};
}

std::optional<RelayMessage> RelayInput::next() {
    if (held() < sizeof(RelayHeader) || held() < wanted()) {
        return std::nullopt;
    }
    RelayMessage message;
    std::memcpy(&message.header, bytes_.get() + begin_, sizeof message.header);
    message.payload = {bytes_.get() + begin_ + sizeof message.header, message.header.payloadBytes};
    begin_ += sizeof message.header + message.header.payloadBytes;
    return message;
}

RelayStream::RelayStream(const std::string& path, bool spins)
    : descriptor_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), spins_(spins) {
    const base::UnixAddress address(path);
    if (::connect(descriptor_, address.get(), address.size()) != 0) {
        throw std::system_error(errno, std::generic_category(), "connecting to the relay");
    }
}

RelayStream::~RelayStream() {
    ::close(descriptor_);
}

void RelayStream::shutDown() const {
    ::shutdown(descriptor_, SHUT_RDWR);
}

void RelayStream::send(const RelayHeader& header, std::string_view payload) {
    RelayHeader complete = header;
    complete.payloadBytes = static_cast<std::uint32_t>(payload.size());
    const std::string_view head(reinterpret_cast<const char*>(&complete), sizeof complete);
    if (gathers_) {
        gathered_.append(head).append(payload);
    } else {
        write(head, payload);
    }
}

void RelayStream::endGathering() {
    gathers_ = false;
    write({}, gathered_);
    gathered_.clear();
}

void RelayStream::write(std::string_view header, std::string_view payload) const {
    while (!header.empty() || !payload.empty()) {
        std::array<iovec, 2> pieces{{{const_cast<char*>(header.data()), header.size()},
                                     {const_cast<char*>(payload.data()), payload.size()}}};
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        const ssize_t count = ::sendmsg(descriptor_, &message, MSG_NOSIGNAL);
        if (count < 0) {
            throw std::system_error(errno, std::generic_category(), "sending to the relay");
        }
        const auto taken = static_cast<std::size_t>(count);
        payload.remove_prefix(taken - std::min(taken, header.size()));
        header.remove_prefix(std::min(taken, header.size()));
    }
}

RelayMessage RelayStream::receive() {
    while (true) {
        if (const auto message = input_.next()) {
            return *message;
        }
        input_.filled(read());
    }
}

long RelayStream::tryToRead(std::span<char> room, int flags) const {
    const ssize_t count = ::recv(descriptor_, room.data(), room.size(), flags);
    if (count == 0 || (count < 0 && errno != EAGAIN)) {
        throw std::runtime_error("the relay is gone");
    }
    return count;
}

// Spinning goes the way of the library that it is measured beside: look, look
// again for a while, sleep in poll, look.
std::size_t RelayStream::read() {
    const std::span<char> room = input_.room();
    if (!spins_) {
        return static_cast<std::size_t>(tryToRead(room, 0));
    }
    long count = tryToRead(room, MSG_DONTWAIT);
    const auto attempt = [&] {
        count = tryToRead(room, MSG_DONTWAIT);
        return count > 0;
    };
    if (count <= 0 && !spin_.until(attempt)) {
        const wire::Spin::Clock::time_point begin = wire::Spin::Clock::now();
        pollfd waited{descriptor_, POLLIN, 0};
        ::poll(&waited, 1, -1);
        spin_.slept(wire::Spin::Clock::now() - begin);
        count = tryToRead(room, 0);
    }
    return static_cast<std::size_t>(count);
}

}  // namespace kavri::bench
