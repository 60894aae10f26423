// A broker's listening socket, with the test in the place of the broker: for answers that the
// real one never gives, such as false ones, or none.
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
        const base::UnixAddress address(path);
        if (::bind(socket_.get(), address.get(), address.size()) != 0 ||
            ::listen(socket_.get(), 16) != 0) {
            throw std::system_error(errno, std::generic_category(), "listen");
        }
    }
    FakeBroker(const FakeBroker&) = delete;
    FakeBroker& operator=(const FakeBroker&) = delete;
    ~FakeBroker() { stopListening(); }

    void stopListening() {
        socket_.close();
        ::unlink(path_.c_str());
    }

    // The next connection, as it comes.
    RawPeer accept() {
        pollfd waited{socket_.get(), POLLIN, 0};
        if (::poll(&waited, 1, patienceMs) != 1) {
            throw std::runtime_error("nobody connected");
        }
        return RawPeer(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    // The next connection, welcomed.
    RawPeer acceptAndWelcome(std::string_view limits = "payload_bytes=1048576\n") {
        RawPeer peer = accept();
        peer.expect(FrameType::hello);
        peer.send(welcomeFrame(limits));
        return peer;
    }
    // The same while the test is busy connecting.
    std::future<RawPeer> welcomeNext(std::string limits = "payload_bytes=1048576\n") {
        return std::async(std::launch::async,
                          [this, limits = std::move(limits)] { return acceptAndWelcome(limits); });
    }

    static Frame welcomeFrame(std::string_view limits,
                              std::uint64_t version = wire::protocolVersion) {
        return makeFrame(FrameType::welcome, version,
                         {.uuid = "00000000-0000-4000-8000-000000000000", .payload = limits});
    }

  private:
    std::string path_;
    base::Descriptor socket_;
};

}  // namespace kavri::tests

#endif
