// A timer that makes a descriptor readable.
//
// Moved to an earlier time only, never to a later one: whoever sleeps often, for a
// short time and with a time limit far ahead, sets a timer in the kernel once for many
// sleeps, and at times wakes for nothing.
#ifndef KAVRI_BROKER_LOOP_WAKE_TIMER_H
#define KAVRI_BROKER_LOOP_WAKE_TIMER_H

#include <chrono>

#include "base/descriptor.h"

namespace kavri::broker {

class WakeTimer {
  public:
    using Clock = std::chrono::steady_clock;

    WakeTimer();

    int descriptor() const { return descriptor_.get(); }

    // Readable by this time at the latest.
    void wakeBy(Clock::time_point time);
    // Once it is readable: it is not any more.
    void clear();

  private:
    const base::Descriptor descriptor_;
    Clock::time_point setTo_ = Clock::time_point::max();
};

}  // namespace kavri::broker

#endif
