// What is to be looked at when, at the latest.
//
// Entries are never taken back: whoever set one finds out, when it is due,
// whether there is still anything to do. So a session that goes in time costs
// nothing but its entry.
#ifndef KAVRI_BROKER_DEADLINES_H
#define KAVRI_BROKER_DEADLINES_H

#include <functional>
#include <optional>
#include <queue>
#include <vector>

#include "broker/session.h"

namespace kavri::broker {

enum class DeadlineKind : std::uint8_t { handshake, progress, patience, listen };

struct Deadline {
    Clock::time_point due;
    DeadlineKind kind;
    SessionId session;
    bool operator>(const Deadline& other) const { return due > other.due; }
};

class Deadlines {
  public:
    void add(Deadline deadline) { queue_.push(deadline); }

    std::optional<Clock::time_point> next() const {
        return queue_.empty() ? std::nullopt : std::optional(queue_.top().due);
    }

    std::optional<Deadline> takeDue(Clock::time_point now) {
        if (queue_.empty() || queue_.top().due > now) {
            return std::nullopt;
        }
        const Deadline due = queue_.top();
        queue_.pop();
        return due;
    }

  private:
    std::priority_queue<Deadline, std::vector<Deadline>, std::greater<>> queue_;
};

}  // namespace kavri::broker

#endif
