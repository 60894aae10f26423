// A broker's listening socket whose every word a test says: for what the real one
// never does, such as lying, or never answering.
#ifndef KAVRI_TESTS_SUPPORT_FAKE_BROKER_H
#define KAVRI_TESTS_SUPPORT_FAKE_BROKER_H

#include <future>
#include <string>

#include "support/raw_peer.h"

namespace kavri::tests {

class FakeBroker {
  public:
    explicit FakeBroker(const std::string& path)
        : path_(path), socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = socketAddress(path);
        if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(socket_, 16) != 0) {
            throw std::system_error(errno, std::generic_category(), "listen");
        }
    }
    FakeBroker(const FakeBroker&) = delete;
    FakeBroker& operator=(const FakeBroker&) = delete;
    ~FakeBroker() {
        ::close(socket_);
        ::unlink(path_.c_str());
    }

    // The next connection, as it comes.
    RawPeer accept() {
        pollfd waited{socket_, POLLIN, 0};
        if (::poll(&waited, 1, patienceMs) != 1) {
            throw std::runtime_error("nobody connected");
        }
        return RawPeer(::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC));
    }

    // The next connection, welcomed.
    RawPeer acceptAndWelcome(std::string_view granted = "payload_bytes=1048576\n") {
        RawPeer peer = accept();
        peer.expect(FrameType::hello);
        peer.send(welcomeFrame(granted));
        return peer;
    }
    // The same while the test is busy connecting.
    std::future<RawPeer> welcomeNext(std::string granted = "payload_bytes=1048576\n") {
        return std::async(std::launch::async, [this, granted = std::move(granted)] {
            return acceptAndWelcome(granted);
        });
    }

    static Frame welcomeFrame(std::string_view granted,
                              std::uint64_t version = interfaces::protocolVersion) {
        return makeFrame(FrameType::welcome, version,
                         {.uuid = "00000000-0000-4000-8000-000000000000", .payload = granted});
    }

  private:
    std::string path_;
    int socket_;
};

}  // namespace kavri::tests

#endif
