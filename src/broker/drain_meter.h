// Whether a peer drains what is queued for it fast enough to be waited for.
//
// Kept as what the peer is behind: it grows by the drain rate and shrinks by what
// the peer takes. Bursts are fine, as long as the peer is never further behind
// than a stopped peer is after the stall time. A peer that was given up on counts
// as steady again when it has made up half of that: so the time for which others
// wait is bounded by the bytes taken, whatever the peer does.
//
// Knows neither sockets nor clocks: it is given both.
#ifndef KAVRI_BROKER_DRAIN_METER_H
#define KAVRI_BROKER_DRAIN_METER_H

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "interfaces/limits.h"

namespace kavri::broker {

using Clock = std::chrono::steady_clock;

class DrainMeter {
  public:
    // The kernel frees a stream's memory in pieces of up to 64 KiB, and only then
    // shows that they were taken.
    static constexpr std::int64_t pieceBytes = 64 * interfaces::kibibyte;

    DrainMeter(const interfaces::Limits& limits, Clock::time_point now)
        : bytesPerSecond_(static_cast<std::int64_t>(limits.drainBytesPerSecond)),
          allowance_(dueIn(limits.stallTime) + pieceBytes),
          sampled_(now),
          lastTaken_(now) {}

    // `taken`: all that the peer took since the meter was made; may seem to shrink
    // while the kernel's own overhead grows. `left`: what it could take now.
    void sample(Clock::time_point now, std::int64_t taken, std::size_t left);

    // Whether others are to wait until the peer has taken more.
    bool isSteady() const { return !isBehind_; }
    // When it was last seen to have taken something.
    Clock::time_point lastTaken() const { return lastTaken_; }

  private:
    std::int64_t dueIn(Clock::duration time) const;

    std::int64_t bytesPerSecond_;
    std::int64_t allowance_;
    Clock::time_point sampled_;
    Clock::time_point lastTaken_;
    std::int64_t taken_ = 0;
    std::int64_t behindBytes_ = 0;
    bool isBehind_ = false;
};

}  // namespace kavri::broker

#endif
