// When a call must return at the latest.
#ifndef KAVRI_CORE_DEADLINE_H
#define KAVRI_CORE_DEADLINE_H

#include <chrono>
#include <optional>

namespace kavri::core {

using Clock = std::chrono::steady_clock;
// A moment to wait until; nothing: without limit.
using Deadline = std::optional<Clock::time_point>;

// The deadline of one call, whatever the call waits for. The clock is read when the call
// first has to wait, so a call that need not wait does not read it.
class CallDeadline {
  public:
    // Without limit.
    CallDeadline() = default;
    explicit CallDeadline(std::chrono::milliseconds limit) : limit_(limit) {}

    Deadline at() {
        if (limit_ && !at_) {
            at_ = Clock::now() + *limit_;
        }
        return at_;
    }
    bool hasPassed() { return at() && Clock::now() >= *at(); }

  private:
    std::optional<std::chrono::milliseconds> limit_;
    Deadline at_;
};

}  // namespace kavri::core

#endif
