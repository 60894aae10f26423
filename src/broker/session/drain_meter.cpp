// The rate at which a peer drains its send queue; see drain_meter.h.
#include "broker/session/drain_meter.h"

#include <algorithm>

namespace kavri::broker {

void DrainMeter::sample(Clock::time_point now, std::int64_t taken, std::size_t left) {
    const std::int64_t took = taken - taken_;
    behindBytes_ += dueIn(now - sampled_) - took;
    if (took > 0) {
        lastTaken_ = now;
    }
    if (left == 0) {
        // The peer has read everything: what is still queued waits for the broker.
        behindBytes_ = 0;
        lastTaken_ = now;
    }
    taken_ = taken;
    sampled_ = now;
    behindBytes_ = std::clamp<std::int64_t>(behindBytes_, 0, allowance_);
    if (behindBytes_ >= allowance_) {
        isBehind_ = true;
    } else if (behindBytes_ < allowance_ / 2) {
        isBehind_ = false;
    }
}

// What is to be read in this time. An hour at most, so that nothing overflows.
std::int64_t DrainMeter::dueIn(Clock::duration time) const {
    using Milliseconds = std::chrono::duration<double, std::milli>;
    const double ms = std::min(Milliseconds(time).count(), 3'600'000.0);
    return static_cast<std::int64_t>(static_cast<double>(bytesPerSecond_) * ms / 1000);
}

}  // namespace kavri::broker
