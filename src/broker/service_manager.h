// Notifications and sockets between the broker and its service manager, as systemd defines them.
//
// The manager may pass a listening socket (LISTEN_FDS), and wait for signs of life
// (WATCHDOG_USEC); it learns when the broker is ready, reloads and stops (NOTIFY_SOCKET).
// Without a manager all of this does nothing.
#ifndef KAVRI_BROKER_SERVICE_MANAGER_H
#define KAVRI_BROKER_SERVICE_MANAGER_H

#include "base/descriptor.h"
#include "broker/loop/heartbeat.h"

namespace kavri::broker {

// Not open where none was passed. Throws CannotListen where there are several. Nothing is
// left in the environment, so call it once.
base::Descriptor passedSocket();

// For the watchdog of the manager: twice in the time after which it takes the broker for
// hung. None where there is no watchdog.
Heartbeat watchdogHeartbeat();

void notifyReady();
void notifyReloading();

// Notifies at its end, however it comes to it.
struct StoppingNotice {
    StoppingNotice() = default;
    StoppingNotice(const StoppingNotice&) = delete;
    StoppingNotice& operator=(const StoppingNotice&) = delete;
    ~StoppingNotice();
};

}  // namespace kavri::broker

#endif
