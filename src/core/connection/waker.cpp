// An event descriptor; see waker.h.
#include "core/connection/waker.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace kavri::core {

Waker::Waker() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!descriptor_.isOpen()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void Waker::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(descriptor(), &one, sizeof one);
}

void Waker::reset() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = ::read(descriptor(), &count, sizeof count);
}

bool Waker::isWoken() const {
    pollfd looked{descriptor(), POLLIN, 0};
    return ::poll(&looked, 1, 0) == 1;
}

}  // namespace kavri::core
