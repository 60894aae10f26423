// A service manager's end of NOTIFY_SOCKET.
#ifndef KAVRI_TESTS_SUPPORT_NOTIFY_SOCKET_H
#define KAVRI_TESTS_SUPPORT_NOTIFY_SOCKET_H

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "base/descriptor.h"
#include "base/unix_address.h"
#include "support/waiting.h"

namespace kavri::tests {

class NotifySocket {
  public:
    explicit NotifySocket(const std::string& path)
        : descriptor_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const base::UnixAddress address(path);
        if (::bind(descriptor_.get(), address.get(), address.size()) != 0) {
            throw std::system_error(errno, std::generic_category(), "bind");
        }
    }

    // The next notification; empty when none comes within that time.
    std::string next(std::chrono::milliseconds limit = patience) const {
        pollfd waited{descriptor_.get(), POLLIN, 0};
        if (::poll(&waited, 1, static_cast<int>(limit.count())) != 1) {
            return {};
        }
        std::array<char, 4096> text;
        const ssize_t count = ::recv(descriptor_.get(), text.data(), text.size(), 0);
        return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    // Drops those that have arrived.
    void discard() const {
        while (!next(std::chrono::milliseconds(0)).empty()) {
        }
    }

  private:
    base::Descriptor descriptor_;
};

}  // namespace kavri::tests

#endif
