// Which descriptors of the event loop are ready (epoll, level-triggered).
//
// There are two sets. Sessions that have more input than their share of a round are
// in the bulk set, of which each round takes only a few: so a session with little
// input never waits for hundreds that flood. The kernel reports the others of a set
// first the next time, which makes the turns fair. The bulk set is itself watched by
// the first set, so there is one place to sleep.
#ifndef KAVRI_BROKER_LOOP_READINESS_H
#define KAVRI_BROKER_LOOP_READINESS_H

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "base/descriptor.h"
#include "broker/loop/wake_timer.h"
#include "broker/session/session.h"

namespace kavri::broker {

// What an event belongs to: a session, by its id, or one of these.
inline constexpr std::uint64_t listenerMark = UINT64_MAX;
inline constexpr std::uint64_t signalMark = UINT64_MAX - 1;
inline constexpr std::uint64_t filesMark = UINT64_MAX - 2;
inline constexpr std::uint64_t bulkMark = UINT64_MAX - 3;  // some of the bulk set are ready
inline constexpr std::uint64_t timerMark = UINT64_MAX - 4;
inline constexpr std::uint64_t linkMark = UINT64_MAX - 5;

inline std::uint64_t markOf(SessionId id) {
    return (static_cast<std::uint64_t>(id.generation) << 32U) | id.index;
}
inline SessionId idOf(std::uint64_t mark) {
    return {static_cast<std::uint32_t>(mark), static_cast<std::uint32_t>(mark >> 32U)};
}

class Readiness {
  public:
    Readiness();

    // For input, until it is unwatched or closed.
    void watch(int descriptor, std::uint64_t mark);
    void unwatch(int descriptor);

    // Reports the session when one of these events is there; none: never. False where
    // the kernel refuses, after which the session is not watched.
    [[nodiscard]] bool watch(Session& session, std::uint32_t events) const;
    // Moves the session to the bulk set, or back. Returns as watch does.
    [[nodiscard]] bool setBulk(Session& session, bool isBulk) const;

    // Whether there are events. Where there are more than one round takes, the kernel
    // reports the others first the next time.
    bool poll() { return takeEvents(0); }
    // The same; sleeps until something is ready, until that time at the latest, and
    // sometimes for a shorter time.
    bool wait(std::optional<WakeTimer::Clock::time_point> until);
    // Those of the last call.
    std::span<const epoll_event> events() const { return {events_.data(), count_}; }

    // The same for the bulk sessions, without sleeping: those whose turn it is.
    void waitBulk();
    std::span<const epoll_event> bulkEvents() const { return {bulkEvents_.data(), bulkCount_}; }

  private:
    static constexpr std::size_t eventsPerRound = 256;
    static constexpr std::size_t bulkPerRound = 2;

    bool takeEvents(int timeoutMs);

    const base::Descriptor epoll_;
    const base::Descriptor bulk_;
    WakeTimer timer_;
    std::array<epoll_event, eventsPerRound> events_;
    std::size_t count_ = 0;
    std::array<epoll_event, bulkPerRound> bulkEvents_;
    std::size_t bulkCount_ = 0;
};

}  // namespace kavri::broker

#endif
