// Whether a peer drains its send queue fast enough for back-pressure, or is stalled.
//
// A leaky bucket: the peer's arrears in bytes grow by the drain rate and shrink by what
// the peer reads. A peer stalls when its arrears are those of a stopped peer after the
// stall time, and is steady again when it has made up half of them. So the time for
// which senders wait is bounded by the bytes read, whatever pattern the peer reads in.
//
// No I/O, no clock: the caller samples both.
#ifndef KAVRI_BROKER_SESSION_DRAIN_METER_H
#define KAVRI_BROKER_SESSION_DRAIN_METER_H

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "wire/limits.h"

namespace kavri::broker {

using Clock = std::chrono::steady_clock;

class DrainMeter {
  public:
    // The kernel frees a stream's memory in pieces of up to 64 KiB, and only then
    // shows that they were taken.
    static constexpr std::int64_t pieceBytes = 64 * wire::kibibyte;

    DrainMeter(const wire::Limits& limits, Clock::time_point now)
        : bytesPerSecond_(static_cast<std::int64_t>(limits.drainBytesPerSecond)),
          allowance_(dueIn(limits.stallTime) + pieceBytes),
          sampled_(now),
          lastTaken_(now) {}

    // `taken`: what the peer has read since the meter was made; may seem to shrink
    // while the kernel's own overhead grows. `left`: what it could read now.
    void sample(Clock::time_point now, std::int64_t taken, std::size_t left);

    // Whether senders wait for the peer: it has not stalled.
    bool isSteady() const { return !isBehind_; }
    // When a sample last showed progress.
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
