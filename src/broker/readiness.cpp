// Which descriptors are ready; see readiness.h.
#include "broker/readiness.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kavri::broker {

Readiness::Readiness() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll_ < 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
}

Readiness::~Readiness() {
    ::close(epoll_);
}

void Readiness::watch(int descriptor, std::uint64_t mark) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = mark;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

void Readiness::unwatch(int descriptor) {
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
}

bool Readiness::wait(int timeoutMs) {
    const int count = ::epoll_wait(epoll_, events_.data(), eventsPerRound, timeoutMs);
    count_ = static_cast<std::size_t>(std::max(count, 0));
    return count_ > 0;
}

}  // namespace kavri::broker
