// A timer of the kernel (timerfd); see wake_timer.h.
#include "broker/loop/wake_timer.h"

#include <sys/timerfd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace kavri::broker {

namespace {

[[noreturn]] void fail(const char* call) {
    throw std::system_error(errno, std::generic_category(), call);
}

itimerspec onceAt(WakeTimer::Clock::time_point time) {
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    const nanoseconds whole = time.time_since_epoch();
    const auto full = std::chrono::duration_cast<seconds>(whole);
    itimerspec setting{};
    setting.it_value.tv_sec = full.count();
    setting.it_value.tv_nsec = (whole - full).count();
    return setting;
}

}  // namespace

// The steady clock is the kernel's monotonic one.
WakeTimer::WakeTimer()
    : descriptor_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (!descriptor_.isOpen()) {
        fail("timerfd_create");
    }
}

void WakeTimer::wakeBy(Clock::time_point time) {
    if (time >= setTo_) {
        return;
    }
    const itimerspec setting = onceAt(time);
    if (::timerfd_settime(descriptor_.get(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
        fail("timerfd_settime");
    }
    setTo_ = time;
}

void WakeTimer::clear() {
    std::uint64_t expirations = 0;
    if (::read(descriptor_.get(), &expirations, sizeof expirations) < 0 && errno != EAGAIN) {
        fail("read from a timer");
    }
    setTo_ = Clock::time_point::max();
}

}  // namespace kavri::broker
