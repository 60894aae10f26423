// The service manager by way of libsystemd; see service_manager.h.
#include "broker/service_manager.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "broker/loop/listener.h"

namespace kavri::broker {

base::Descriptor passedSocket() {
    const int count = sd_listen_fds(1);
    if (count > 1) {
        throw CannotListen(std::to_string(count) +
                           " sockets were passed: pass one, a broker listens on one");
    }
    return base::Descriptor(count == 1 ? SD_LISTEN_FDS_START : -1);
}

Heartbeat watchdogHeartbeat() {
    std::uint64_t limitUs = 0;
    if (sd_watchdog_enabled(0, &limitUs) <= 0) {
        return {};
    }
    return {std::chrono::microseconds(limitUs / 2), [] { sd_notify(0, "WATCHDOG=1"); }};
}

void notifyReady() {
    sd_notify(0, "READY=1");
}

// The service manager orders notifications by the monotonic clock.
void notifyReloading() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto nowUs = std::chrono::duration_cast<std::chrono::microseconds>(now);
    sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld", static_cast<long long>(nowUs.count()));
}

StoppingNotice::~StoppingNotice() {
    sd_notify(0, "STOPPING=1");
}

}  // namespace kavri::broker
