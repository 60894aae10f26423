// The event loop's clock, which stops while the process is stopped.
//
// A process that was stopped, suspended or starved of processor time finds every
// deadline expired at once, though no peer was late. So a round that took much longer
// than planned counts only for the longest time that it should have taken.
#ifndef KAVRI_BROKER_LOOP_LOOP_CLOCK_H
#define KAVRI_BROKER_LOOP_LOOP_CLOCK_H

#include <algorithm>
#include <chrono>
#include <utility>

namespace kavri::broker {

class LoopClock {
  public:
    using Clock = std::chrono::steady_clock;
    // Far more than what a round of the event loop may take.
    static constexpr std::chrono::milliseconds tolerance{200};

    explicit LoopClock(Clock::time_point real) : real_(real) {}

    // Call once in each round; `planned` is how long the loop intended to sleep.
    void advance(Clock::time_point real, Clock::duration planned) {
        const Clock::duration elapsed = real - std::exchange(real_, real);
        const Clock::duration most = std::max(planned, Clock::duration::zero());
        if (elapsed > most && elapsed - most > tolerance) {
            lost_ += elapsed - most - tolerance;
        }
    }

    Clock::time_point now() const { return at(real_); }
    // The loop's time at a moment in the present round.
    Clock::time_point at(Clock::time_point real) const { return real - lost_; }

  private:
    Clock::time_point real_;
    Clock::duration lost_{};
};

}  // namespace kavri::broker

#endif
