// The thread's life and its loop; see dispatcher.h.
#include "core/endpoint/dispatcher.h"

#include <new>

#include "base/blocked_signals.h"
#include "wire/limits.h"

namespace kavri::core {

CallbackPlace::CallbackPlace(Dispatcher& dispatcher)
    : dispatcher_(dispatcher), next_(dispatcher.places_) {
    dispatcher.places_ = this;
}

void CallbackPlace::setInstalled(bool isInstalled) {
    dispatcher_.installed_ += static_cast<int>(isInstalled) - static_cast<int>(isInstalled_);
    isInstalled_ = isInstalled;
}

void Dispatcher::ensureThread(const std::shared_ptr<Work>& work) {
    if (!thread_.joinable()) {
        const base::BlockedSignals blocked;
        thread_ = std::thread([this, work] { run(*work); });
    }
}

void Dispatcher::run(Work& work) {
    Lock lock = monitor_.acquire();
    while (!isEnding()) {
        try {
            work.dispatchOnce(lock);
        } catch (const std::bad_alloc&) {
            // Nothing is lost: what could not be stored is still the next. There may be
            // memory again shortly.
            monitor_.waitFor(lock, wire::firstReconnectPause);
        }
    }
    work.finishDispatching(lock);
}

void Dispatcher::awaitReturn(Lock& lock, const CallbackPlace& place) {
    monitor_.expectHeld(lock);
    if (!isOwnThread()) {
        const std::uint64_t begunBefore = place.begun_;
        monitor_.waitUntil(lock, [&] { return place.returned_ >= begunBefore; });
    }
}

void Dispatcher::beginEnd() {
    state_ = State::ending;
    for (CallbackPlace* place = places_; place != nullptr; place = place->next_) {
        place->setInstalled(false);
    }
}

void Dispatcher::awaitEnd(Lock& lock) {
    KAVRI_ASSERT(isEnding(), "a thread is joined once it is to end");
    if (!thread_.joinable()) {
        return;
    }
    if (isOwnThread()) {
        thread_.detach();
        return;
    }
    lock.unlock();
    thread_.join();
}

}  // namespace kavri::core
