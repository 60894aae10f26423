// A timer that makes a descriptor readable.
//
// It is only ever set to an earlier time. An event loop sleeps thousands of times a second
// with a deadline far ahead: so it makes one system call for many sleeps, and now and then
// wakes up early.
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
