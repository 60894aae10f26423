// One end of a connection that says whatever a test wants, true or not: a client
// of the real broker, or a broker's side of a connection of the real library.
//
// Nothing here checks what is sent. Waiting for something that does not come
// throws, so that a test fails instead of hanging.
#ifndef KAVRI_TESTS_SUPPORT_RAW_PEER_H
#define KAVRI_TESTS_SUPPORT_RAW_PEER_H

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/descriptor.h"
#include "base/unix_address.h"
#include "support/frames.h"
#include "support/waiting.h"

namespace kavri::tests {

// A frame with its bytes.
struct RawFrame {
    std::vector<char> bytes;
    Frame values;
};

class RawPeer {
  public:
    explicit RawPeer(int descriptor) : descriptor_(descriptor) {}
    explicit RawPeer(const std::string& path)
        : RawPeer(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const base::UnixAddress address(path);
        if (::connect(descriptor(), address.get(), address.size()) != 0) {
            throw std::system_error(errno, std::generic_category(), "connect");
        }
    }
    // A client that the broker has welcomed.
    RawPeer(const std::string& path, std::string_view role) : RawPeer(path) {
        send(helloFrame(role));
        expect(FrameType::welcome);
    }

    void close() { descriptor_.close(); }
    // Says no more, and still listens.
    void endSending() { ::shutdown(descriptor(), SHUT_WR); }

    // Bytes as they come, without looking at them; 0 when the other side closed.
    std::size_t readUpTo(std::vector<char>& chunk) {
        wait(POLLIN);
        const ssize_t count = ::recv(descriptor(), chunk.data(), chunk.size(), 0);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }

    // All of the bytes; a peer that closes meanwhile is no failure here.
    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            wait(POLLOUT);
            const ssize_t taken =
                ::send(descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (taken < 0 && errno != EAGAIN) {
                return;
            }
            bytes.remove_prefix(taken > 0 ? static_cast<std::size_t>(taken) : 0);
        }
    }
    void send(const Frame& frame) { write(encode(frame)); }

    // As many bytes as the other side takes for now.
    std::size_t writeSome(std::string_view bytes) {
        const ssize_t taken =
            ::send(descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return taken > 0 ? static_cast<std::size_t>(taken) : 0;
    }

    int descriptor() const { return descriptor_.get(); }
    void makeNonBlocking() { ::fcntl(descriptor(), F_SETFL, O_NONBLOCK); }
    // Drops what waits to be read, for now.
    void discard() {
        std::array<char, 65536> bytes;
        while (::recv(descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
    }

    // What waits to be read, and stays there.
    std::string peek() const {
        std::string bytes(1 << 24, '\0');
        const ssize_t count =
            ::recv(descriptor(), bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    RawFrame receive() {
        RawFrame frame;
        while (true) {
            if (input_.size() >= wire::headerBytes) {
                const auto measured = wire::measure(input_.data(), wire::payloadCeilingBytes);
                if (measured.error) {
                    throw std::runtime_error("received what is no frame");
                }
                if (input_.size() >= measured.frameBytes) {
                    frame.bytes.assign(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(
                                                                            measured.frameBytes));
                    input_.erase(0, measured.frameBytes);
                    frame.values = wire::decode(frame.bytes.data()).value();
                    return frame;
                }
            }
            if (!readSome()) {
                throw std::runtime_error("the other side closed where a frame was due");
            }
        }
    }
    RawFrame expect(FrameType type) {
        RawFrame frame = receive();
        if (frame.values.type != type) {
            throw std::runtime_error("received a " +
                                     std::string(wire::typeName(frame.values.type)) + " where a " +
                                     std::string(wire::typeName(type)) + " was due");
        }
        return frame;
    }
    // "status 9: the reason" in the goodbye that comes next, with which the other side closes.
    std::string closing() {
        const RawFrame goodbye = expect(FrameType::goodbye);
        std::string text = "status " + std::to_string(goodbye.values.status) + ": ";
        text += goodbye.values[Field::payload];
        expectEnd();
        return text;
    }
    // That the broker answers.
    void ping(std::uint64_t token = 7) {
        send(makeFrame(FrameType::ping, token));
        if (expect(FrameType::pong).values.token != token) {
            throw std::runtime_error("the pong has another token than its ping");
        }
    }
    // Reads on until the other side closes.
    void expectEnd() {
        while (readSome()) {
        }
    }

  private:
    void wait(short events) const {
        pollfd waited{descriptor(), events, 0};
        if (::poll(&waited, 1, patienceMs) != 1) {
            throw std::runtime_error("nothing happened on the connection");
        }
    }
    bool readSome() {
        wait(POLLIN);
        std::vector<char> chunk(65536);
        const ssize_t count = ::recv(descriptor(), chunk.data(), chunk.size(), 0);
        if (count > 0) {
            input_.append(chunk.data(), static_cast<std::size_t>(count));
        }
        return count > 0;
    }

    base::Descriptor descriptor_;
    std::string input_;
};

// Has a responder serve a category.
inline void registerFor(RawPeer& peer, std::string_view category) {
    peer.send(makeFrame(FrameType::registration, 1, {.category = category}));
    peer.expect(FrameType::acknowledgement);
}

// A subscriber of the category, or its responder, once the broker has acknowledged it.
inline RawPeer subscriberOf(const std::string& path, std::string_view category) {
    RawPeer peer(path, "initiator");
    peer.send(makeFrame(FrameType::subscribe, 1, {.category = category}));
    peer.expect(FrameType::acknowledgement);
    return peer;
}
inline RawPeer responderFor(const std::string& path, std::string_view category) {
    RawPeer peer(path, "responder");
    registerFor(peer, category);
    return peer;
}

}  // namespace kavri::tests

#endif
