// When the next connection may be tried.
//
// After a connection that lasted, at once. After one that did not, a pause comes first,
// which doubles each time: so a broker that accepts and closes, again and again, costs
// neither side more than a try a second. No I/O and no clock of its own.
#ifndef KAVRI_CORE_RECONNECT_PAUSE_H
#define KAVRI_CORE_RECONNECT_PAUSE_H

#include <algorithm>

#include "core/deadline.h"
#include "interfaces/limits.h"

namespace kavri::core {

class ReconnectPause {
  public:
    void connected(Clock::time_point now) { connectedAt_ = now; }

    void lost(Clock::time_point now) {
        if (now - connectedAt_ >= interfaces::steadyConnectionTime) {
            pause_ = {};
        } else {
            pause_ = std::clamp(pause_ * 2, interfaces::firstReconnectPause,
                                interfaces::lastReconnectPause);
        }
        notBefore_ = now + pause_;
    }

    Clock::time_point notBefore() const { return notBefore_; }

  private:
    Clock::time_point connectedAt_;
    Clock::time_point notBefore_;
    std::chrono::milliseconds pause_{};
};

}  // namespace kavri::core

#endif
