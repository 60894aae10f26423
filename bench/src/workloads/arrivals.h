// Responses that a delivering thread has taken and the sending thread has not
// yet followed with further requests.
#ifndef KAVRI_BENCH_ARRIVALS_H
#define KAVRI_BENCH_ARRIVALS_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "transports/transport.h"

namespace kavri::bench {

class Arrivals {
  public:
    // One more; wakes the sending thread where it sleeps.
    void add() {
        {
            const std::lock_guard lock(mutex_);
            if (count_++ != 0) {
                return;
            }
        }
        changed_.notify_one();
    }

    // Sleeps until there is one at least, and returns how many there are.
    std::size_t takeAll() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::milliseconds(patienceMs),
                               [this] { return count_ != 0; })) {
            throw std::runtime_error("a response did not come in time");
        }
        return std::exchange(count_, 0);
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t count_ = 0;
};

}  // namespace kavri::bench

#endif
