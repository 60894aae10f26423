// Whose turn it is to read.
//
// A thread that waits for a frame reads the socket itself when no other thread does: so a lone
// caller is woken by the kernel, not by another thread. It waits and reads without the lock;
// frames are handled after its turn. Guarded by the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_READ_TURN_H
#define KAVRI_CORE_ENDPOINT_READ_TURN_H

#include "base/assert.h"
#include "core/connection/waker.h"

namespace kavri::core {

class ReadTurn {
  public:
    explicit ReadTurn(Waker& waker) : waker_(waker) {}

    bool isFree() const { return state_ == State::free; }

    void begin() {
        KAVRI_ASSERT(isFree(), "one thread reads at a time");
        state_ = State::taken;
    }
    // Ends the wait of the thread that reads, if one does.
    void interrupt() {
        if (state_ == State::taken) {
            state_ = State::interrupted;
            waker_.wake();
        }
    }
    void end() {
        KAVRI_ASSERT(!isFree(), "only a turn that was begun ends");
        if (state_ == State::interrupted) {
            waker_.reset();
        }
        state_ = State::free;
    }

  private:
    enum class State { free, taken, interrupted };

    Waker& waker_;
    State state_ = State::free;
};

}  // namespace kavri::core

#endif
