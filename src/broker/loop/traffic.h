// The sessions' input and output: the only file of the broker that reads from them and
// writes to them.
//
// Input is passed to the protocol. A session whose frame has to wait is blocked, that
// is, not read from, until the session that it waits for has room or has stalled. While
// a send queue is not empty after a write, its peer's drain rate is measured.
#ifndef KAVRI_BROKER_LOOP_TRAFFIC_H
#define KAVRI_BROKER_LOOP_TRAFFIC_H

#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "broker/loop/deadlines.h"
#include "broker/loop/readiness.h"
#include "broker/routing/protocol.h"
#include "broker/routing/router.h"
#include "broker/session/session.h"
#include "wire/limits.h"

namespace kavri::broker {

class Traffic {
  public:
    // No read takes more; in front of it there is room for the beginning of a frame that
    // came before.
    static constexpr std::size_t mostReadBytes = 128 * wire::kibibyte;

    // All of these outlive this.
    struct Surroundings {
        const wire::Limits& limits;
        Router& router;
        Protocol& protocol;
        Deadlines& deadlines;
        Readiness& readiness;
        const Clock::time_point& now;
        // Closes a session at the end of the round.
        std::function<void(Session&, CloseCause, std::string_view reason)> close;
    };

    explicit Traffic(Surroundings surroundings);

    // One read, of at most that much unless a large frame is coming in, and what
    // follows from it. Whether there is probably more to be read.
    bool receive(Session& session, std::size_t mostBytes);
    // Whole frames that came in for a session without a socket.
    void handle(Session& session, char* frames, std::size_t count);
    // One write; the rest is written in a later round, after the other sessions.
    void writeTo(Session& session);
    // One attempt to send what is queued for a session that is being closed.
    static void sendLast(const Session& session);
    // Resumes the senders blocked on the session, as far as there is room and the round's
    // budget allows; later rounds continue. Returns whether none is left to resume.
    bool release(Session& drained);
    // Begins a round's budget, and continues what the last round left.
    void releaseRest();
    bool hasRestToRelease() const { return !unreleased_.empty(); }
    // For a session that is removed: no sender is blocked on it any more.
    void forget(const Session& session) { std::erase(unreleased_, &session); }
    // Has the kernel report what the session is ready for.
    void watch(Session& session);
    // Puts the session among those that are read from after the others, or back.
    void setBulk(Session& session, bool isBulk);

    // For deadlines that have expired.
    void checkFrame(Session& session);
    void checkDrain(Session& session);

  private:
    // How many frames of resumed senders a round handles, about.
    static constexpr std::uint64_t resumedFramesPerRound = 4096;

    bool readFrom(Session& session, std::size_t mostBytes);
    static void noteFrameSize(Session& session, std::size_t bytes, std::uint64_t frames);
    bool readLarge(Session& session);
    template <typename Take>
    void takeInput(Session& session, Take take);
    void ended(Session& session, int error);
    void closeUnwatched(Session& session);
    void blockOrGoOn(Session& session, const std::optional<Blocked>& blocked);
    void watchFrame(Session& session);
    void wrote(Session& session, std::size_t count);
    void beginMeasuring(Session& session);
    void setDrainDeadline(const Session& session);
    void endIfDrained(Session& session);

    const wire::Limits& limits() const { return surroundings_.limits; }
    Router& router() { return surroundings_.router; }
    Protocol& protocol() { return surroundings_.protocol; }
    Deadlines& deadlines() { return surroundings_.deadlines; }
    Clock::time_point now() const { return surroundings_.now; }

    const Surroundings surroundings_;
    std::vector<char> readBuffer_;
    std::uint64_t resumedFrames_ = 0;   // in this round
    std::vector<Session*> unreleased_;  // sessions with room on which senders are still blocked
};

}  // namespace kavri::broker

#endif
