// A sign of life that the event loop gives at intervals, for as long as it goes round.
//
// Given by the loop itself and by nothing beside it, so that it ends when the loop hangs.
// Its interval is measured with the system's clock, not the loop's own: the watchdog's time
// goes on while this process is stopped.
#ifndef KAVRI_BROKER_LOOP_HEARTBEAT_H
#define KAVRI_BROKER_LOOP_HEARTBEAT_H

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

namespace kavri::broker {

class Heartbeat {
  public:
    using Clock = std::chrono::steady_clock;

    // Nobody waits for one.
    Heartbeat() = default;
    Heartbeat(Clock::duration interval, std::function<void()> beat)
        : interval_(interval), beat_(std::move(beat)), due_(Clock::now()) {}

    // When the loop has to go round for the next one at the latest.
    std::optional<Clock::time_point> due() const {
        return beat_ ? std::optional(due_) : std::nullopt;
    }
    // Call once in each round.
    void beatIfDue(Clock::time_point now) {
        if (now >= due_) {
            beat_();
            due_ = now + interval_;
        }
    }

  private:
    Clock::duration interval_{};
    std::function<void()> beat_;
    Clock::time_point due_ = Clock::time_point::max();
};

}  // namespace kavri::broker

#endif
