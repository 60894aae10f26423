// Which descriptors of the event loop are ready (epoll, level-triggered).
#ifndef KAVRI_BROKER_READINESS_H
#define KAVRI_BROKER_READINESS_H

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <span>

#include "broker/session.h"

namespace kavri::broker {

// What an event belongs to: a session, by its id, or one of these.
inline constexpr std::uint64_t listenerMark = UINT64_MAX;
inline constexpr std::uint64_t signalMark = UINT64_MAX - 1;
inline constexpr std::uint64_t filesMark = UINT64_MAX - 2;

inline std::uint64_t markOf(SessionId id) {
    return (static_cast<std::uint64_t>(id.generation) << 32U) | id.index;
}
inline SessionId idOf(std::uint64_t mark) {
    return {static_cast<std::uint32_t>(mark), static_cast<std::uint32_t>(mark >> 32U)};
}

class Readiness {
  public:
    Readiness();
    Readiness(const Readiness&) = delete;
    Readiness& operator=(const Readiness&) = delete;
    ~Readiness();

    int descriptor() const { return epoll_; }

    // For input, until it is unwatched or closed.
    void watch(int descriptor, std::uint64_t mark);
    void unwatch(int descriptor);

    // Sleeps until something is ready, at most so long; -1: without end. Whether
    // there are events. Where there are more than one round takes, the kernel
    // reports the others first the next time.
    bool wait(int timeoutMs);
    // Those of the last wait.
    std::span<const epoll_event> events() const { return {events_.data(), count_}; }

  private:
    static constexpr std::size_t eventsPerRound = 256;

    const int epoll_;
    std::array<epoll_event, eventsPerRound> events_;
    std::size_t count_ = 0;
};

}  // namespace kavri::broker

#endif
