// When the next connection may be tried, and what a connection that was made means.
//
// After a connection that lasted, the next one is tried at once. After one that did not, a
// pause comes first, which doubles each time: so a broker that accepts and closes, again and
// again, costs neither side more than a try a second. No I/O and no clock of its own. Guarded
// by the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_RECONNECT_SCHEDULE_H
#define KAVRI_CORE_ENDPOINT_RECONNECT_SCHEDULE_H

#include <algorithm>

#include "base/assert.h"
#include "core/deadline.h"
#include "wire/limits.h"

namespace kavri::core {

class ReconnectSchedule {
  public:
    bool isConnecting() const { return state_ == State::connecting; }
    // No try begins before this.
    Clock::time_point notBefore() const { return notBefore_; }

    // One thread begins to connect.
    void begin(Clock::time_point now) {
        KAVRI_ASSERT(state_ == State::disconnected, "one thread connects, where there is need");
        KAVRI_ASSERT(now >= notBefore_, "the pause is over");
        state_ = State::connecting;
    }
    void failed() {
        KAVRI_ASSERT(isConnecting(), "only a try that was begun fails");
        state_ = State::disconnected;
    }

    struct Connected {
        bool isFirst = false;
        std::chrono::milliseconds disconnected{};  // for how long there was none
    };
    Connected succeeded(Clock::time_point now) {
        KAVRI_ASSERT(isConnecting(), "only a try that was begun succeeds");
        state_ = State::connected;
        connectedAt_ = now;
        const Connected connected{!wasConnected_,
                                  std::chrono::ceil<std::chrono::milliseconds>(now - lostAt_)};
        wasConnected_ = true;
        return connected;
    }

    void lost(Clock::time_point now) {
        KAVRI_ASSERT(state_ == State::connected, "a connection is lost once");
        state_ = State::disconnected;
        lostAt_ = now;
        if (now - connectedAt_ >= wire::steadyConnectionTime) {
            pause_ = {};
        } else {
            pause_ = std::clamp(pause_ * 2, wire::firstReconnectPause, wire::lastReconnectPause);
        }
        notBefore_ = now + pause_;
    }

  private:
    enum class State { disconnected, connecting, connected };

    State state_ = State::disconnected;
    bool wasConnected_ = false;
    Clock::time_point connectedAt_;
    Clock::time_point lostAt_;
    Clock::time_point notBefore_;
    std::chrono::milliseconds pause_{};
};

}  // namespace kavri::core

#endif
