// Stands between a client and a server of a test, and stops in the middle of what the server
// sends when it is asked to.
#ifndef KAVRI_TESTS_SUPPORT_STALLING_RELAY_H
#define KAVRI_TESTS_SUPPORT_STALLING_RELAY_H

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/descriptor.h"

namespace kavri::tests {

class StallingRelay {
  public:
    explicit StallingRelay(const std::string& serverPort)
        : server_(std::stoi(serverPort)), thread_([this] { run(); }) {}
    StallingRelay(const StallingRelay&) = delete;
    StallingRelay& operator=(const StallingRelay&) = delete;
    ~StallingRelay() {
        isOver_ = true;
        thread_.join();
    }

    std::string port() const { return std::to_string(port_); }
    // All but the last byte of what the server sends next is passed on, and then nothing.
    void stall() { isToStall_ = true; }
    bool hasStalled() const { return hasStalled_; }

  private:
    static sockaddr_in here(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<in_port_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }
    static base::Descriptor made() {
        return base::Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }

    int listen() {
        sockaddr_in address = here(0);
        socklen_t size = sizeof address;
        auto* const general = reinterpret_cast<sockaddr*>(&address);
        if (::bind(listener_.get(), general, size) != 0 || ::listen(listener_.get(), 4) != 0 ||
            ::getsockname(listener_.get(), general, &size) != 0) {
            throw std::runtime_error("the relay cannot listen");
        }
        return ntohs(address.sin_port);
    }

    bool isReadable(const base::Descriptor& socket) const {
        pollfd ready{socket.get(), POLLIN, 0};
        return ::poll(&ready, 1, 1) > 0;
    }

    // One client; the next ones are accepted by the kernel, and not talked to.
    void run() {
        while (!isReadable(listener_)) {
            if (isOver_) {
                return;
            }
        }
        const base::Descriptor client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const base::Descriptor server = made();
        const sockaddr_in address = here(server_);
        ::connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        while (!isOver_) {
            pass(client, server, false);
            if (!hasStalled_) {
                pass(server, client, isToStall_);
            }
        }
    }

    void pass(const base::Descriptor& from, const base::Descriptor& to, bool isLast) {
        if (!isReadable(from)) {
            return;
        }
        std::array<char, 4096> bytes{};
        const ssize_t count = ::recv(from.get(), bytes.data(), bytes.size(), 0);
        if (count > 0) {
            ::send(to.get(), bytes.data(), static_cast<std::size_t>(count - (isLast ? 1 : 0)),
                   MSG_NOSIGNAL);
            hasStalled_ = hasStalled_ || isLast;
        }
    }

    const base::Descriptor listener_ = made();
    const int port_ = listen();
    const int server_;
    std::atomic<bool> isToStall_ = false;
    std::atomic<bool> hasStalled_ = false;
    std::atomic<bool> isOver_ = false;
    std::thread thread_;
};

}  // namespace kavri::tests

#endif
