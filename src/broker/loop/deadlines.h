// Deadlines: at most one of each kind for each session.
//
// A deadline that no longer holds is cancelled, so the table never has more
// entries than there are sessions with something to wait for.
#ifndef KAVRI_BROKER_LOOP_DEADLINES_H
#define KAVRI_BROKER_LOOP_DEADLINES_H

#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "base/assert.h"
#include "broker/session/session.h"

namespace kavri::broker {

enum class DeadlineKind : std::uint8_t { handshake, drain, frame, listen };

struct Deadline {
    Clock::time_point due;
    DeadlineKind kind = DeadlineKind::handshake;
    SessionId session;

    bool operator<(const Deadline& other) const { return order() < other.order(); }

  private:
    std::tuple<Clock::time_point, DeadlineKind, std::uint32_t, std::uint32_t> order() const {
        return {due, kind, session.index, session.generation};
    }
};

class Deadlines {
  public:
    // Replaces the session's earlier deadline of this kind.
    void set(const Deadline& deadline) {
        cancel(deadline.kind, deadline.session);
        dueTimes_.emplace(keyOf(deadline.kind, deadline.session), deadline.due);
        byTime_.insert(deadline);
    }

    // Does nothing where there is none.
    void cancel(DeadlineKind kind, SessionId session) {
        const auto found = dueTimes_.find(keyOf(kind, session));
        if (found != dueTimes_.end()) {
            const std::size_t erased = byTime_.erase({found->second, kind, session});
            KAVRI_ASSERT(erased == 1, "each deadline is in both tables");
            dueTimes_.erase(found);
        }
    }

    std::optional<Clock::time_point> next() const {
        return byTime_.empty() ? std::nullopt : std::optional(byTime_.begin()->due);
    }

    // The earliest deadline that has come, which is then no longer set.
    std::optional<Deadline> takeDue(Clock::time_point now) {
        if (byTime_.empty() || byTime_.begin()->due > now) {
            return std::nullopt;
        }
        const Deadline due = *byTime_.begin();
        cancel(due.kind, due.session);
        return due;
    }

    std::size_t size() const { return byTime_.size(); }

  private:
    using Key = std::tuple<std::uint32_t, std::uint32_t, DeadlineKind>;
    static Key keyOf(DeadlineKind kind, SessionId session) {
        return {session.index, session.generation, kind};
    }

    std::map<Key, Clock::time_point> dueTimes_;
    std::set<Deadline> byTime_;
};

}  // namespace kavri::broker

#endif
