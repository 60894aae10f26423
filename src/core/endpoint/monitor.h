// The lock of an endpoint, and the condition on which its threads wait for one another.
//
// Lock order, for the whole library. An endpoint has this one lock, and it guards all of the
// endpoint's parts. A thread that holds it may take the lock of the log, and those inside the
// C library; it takes the lock of no other endpoint. It gives the lock up for whatever may
// take long: a callback, connecting, a read, any wait. It keeps it for writes, which never
// block: so frames leave in the order in which they were accepted. While a thread of the
// program ends the library's thread and waits for it, it holds no lock.
#ifndef KAVRI_CORE_ENDPOINT_MONITOR_H
#define KAVRI_CORE_ENDPOINT_MONITOR_H

#include <condition_variable>
#include <mutex>

#include "base/assert.h"
#include "core/deadline.h"

namespace kavri::core {

using Lock = std::unique_lock<std::mutex>;

class Monitor {
  public:
    Lock acquire() { return Lock(mutex_); }
    // Without waiting; the result may not own the lock.
    Lock tryAcquire() { return Lock(mutex_, std::try_to_lock); }

    void expectHeld(const Lock& lock) const {
        KAVRI_ASSERT(lock.owns_lock() && lock.mutex() == &mutex_,
                     "the endpoint's lock guards what is used here");
    }

    // Something that others wait for may have changed.
    void notifyAll() { changed_.notify_all(); }
    void wait(Lock& lock) { changed_.wait(lock); }
    void wait(Lock& lock, Deadline deadline) {
        if (deadline) {
            changed_.wait_until(lock, *deadline);
        } else {
            changed_.wait(lock);
        }
    }
    template <typename Condition>
    void waitUntil(Lock& lock, const Condition& condition) {
        changed_.wait(lock, condition);
    }
    void waitFor(Lock& lock, std::chrono::milliseconds time) { changed_.wait_for(lock, time); }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

}  // namespace kavri::core

#endif
