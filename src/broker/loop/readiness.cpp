// Which descriptors are ready; see readiness.h.
#include "broker/loop/readiness.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace kavri::broker {

namespace {

base::Descriptor makeSet() {
    base::Descriptor set(::epoll_create1(EPOLL_CLOEXEC));
    if (!set.isOpen()) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
    return set;
}

std::size_t waitAt(int set, std::span<epoll_event> events, int timeoutMs) {
    const int count = ::epoll_wait(set, events.data(), static_cast<int>(events.size()), timeoutMs);
    return static_cast<std::size_t>(std::max(count, 0));
}

}  // namespace

Readiness::Readiness() : epoll_(makeSet()), bulk_(makeSet()) {
    watch(bulk_.get(), bulkMark);
    watch(timer_.descriptor(), timerMark);
}

void Readiness::watch(int descriptor, std::uint64_t mark) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = mark;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

void Readiness::unwatch(int descriptor) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

bool Readiness::watch(Session& session, std::uint32_t events) const {
    if (events == session.watchedEvents) {
        return true;
    }
    epoll_event event{};
    event.events = events;
    event.data.u64 = markOf(session.id);
    int change = EPOLL_CTL_MOD;
    if (session.watchedEvents == 0) {
        change = EPOLL_CTL_ADD;
    } else if (events == 0) {
        change = EPOLL_CTL_DEL;
    }
    const int set = session.isBulk ? bulk_.get() : epoll_.get();
    const bool isWatched = ::epoll_ctl(set, change, session.descriptor, &event) == 0;
    session.watchedEvents = isWatched ? events : 0;
    return isWatched;
}

bool Readiness::setBulk(Session& session, bool isBulk) const {
    const std::uint32_t events = session.watchedEvents;
    const bool isUnwatched = watch(session, 0);
    session.isBulk = isBulk;
    return isUnwatched && watch(session, events);
}

// A time limit of epoll_wait itself is a timer in the kernel for each sleep: 0.3 µs, where
// a whole round trip takes 10.
bool Readiness::wait(std::optional<WakeTimer::Clock::time_point> until) {
    if (until) {
        timer_.wakeBy(*until);
    }
    return takeEvents(-1);
}

bool Readiness::takeEvents(int timeoutMs) {
    count_ = waitAt(epoll_.get(), events_, timeoutMs);
    const auto end = events_.begin() + static_cast<std::ptrdiff_t>(count_);
    const auto expired = std::find_if(
        events_.begin(), end, [](const epoll_event& event) { return event.data.u64 == timerMark; });
    if (expired != end) {
        timer_.clear();
        std::copy(expired + 1, end, expired);
        --count_;
    }
    return count_ > 0;
}

void Readiness::waitBulk() {
    bulkCount_ = waitAt(bulk_.get(), bulkEvents_, 0);
}

}  // namespace kavri::broker
