// When a call must return at the latest.
#ifndef KAVRI_CORE_DEADLINE_H
#define KAVRI_CORE_DEADLINE_H

#include <chrono>
#include <optional>

namespace kavri::core {

using Clock = std::chrono::steady_clock;
// When a wait ends; nothing: it has no limit.
using Deadline = std::optional<Clock::time_point>;

// The deadline of one call, for all of its waits together. The clock is read at the first
// wait, so a call that need not wait does not read it.
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

// Time-outs as the C functions take them: in milliseconds, or -1 without limit.
inline bool isTimeout(int timeoutMs) {
    return timeoutMs >= -1;
}
inline CallDeadline deadlineAfter(int timeoutMs) {
    return timeoutMs < 0 ? CallDeadline() : CallDeadline(std::chrono::milliseconds(timeoutMs));
}

}  // namespace kavri::core

#endif
