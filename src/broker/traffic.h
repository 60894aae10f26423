// The sessions' input and output: the only file of the broker that reads from them and
// writes to them.
//
// What is read goes to the protocol. A session whose frame must wait is blocked, which
// means that it is not read from, until the session that it waits for has room or is
// given up on. While a session does not take what is queued for it, its drain rate is
// measured.
#ifndef KAVRI_BROKER_TRAFFIC_H
#define KAVRI_BROKER_TRAFFIC_H

#include <functional>
#include <string_view>
#include <vector>

#include "broker/deadlines.h"
#include "broker/protocol.h"
#include "broker/readiness.h"
#include "broker/router.h"
#include "broker/session.h"
#include "interfaces/limits.h"

namespace kavri::broker {

class Traffic {
  public:
    // No read takes more; in front of it there is room for the beginning of a frame that
    // came before.
    static constexpr std::size_t mostReadBytes = 128 * interfaces::kibibyte;

    // All of these outlive this.
    struct Surroundings {
        const interfaces::Limits& limits;
        Router& router;
        Protocol& protocol;
        Deadlines& deadlines;
        Readiness& readiness;
        const Clock::time_point& now;
        // Closes a session at the end of the round.
        std::function<void(Session&, kavri_core_status, std::string_view reason)> close;
    };

    explicit Traffic(Surroundings surroundings);

    // One read, of at most that much unless a large frame is coming in, and what
    // follows from it.
    void receive(Session& session, std::size_t mostBytes);
    // One write; what it leaves is for a later round, after the other sessions.
    void writeTo(Session& session);
    // One try to send what is queued for a session that goes.
    static void sendLast(const Session& session);
    // Resumes those that wait for the session, as far as there is room.
    void release(Session& drained);
    // Has the kernel report what the session is ready for.
    void watch(Session& session);

    // Deadlines that have passed.
    void checkFrame(Session& session);
    void checkDrain(Session& session);

  private:
    void readFrom(Session& session, std::size_t mostBytes);
    static void noteFrameSize(Session& session, std::size_t bytes, std::uint64_t frames);
    void readLarge(Session& session);
    template <typename Take>
    void takeInput(Session& session, Take take);
    void ended(Session& session, int error);
    void waitOrGoOn(Session& session, Session* waitFor);
    void watchFrame(Session& session);
    void wrote(Session& session, std::size_t count);
    void beginMeasuring(Session& session);
    void setDrainDeadline(const Session& session);
    void endIfDrained(Session& session);

    const interfaces::Limits& limits() const { return surroundings_.limits; }
    Router& router() { return surroundings_.router; }
    Protocol& protocol() { return surroundings_.protocol; }
    Deadlines& deadlines() { return surroundings_.deadlines; }
    Clock::time_point now() const { return surroundings_.now; }

    const Surroundings surroundings_;
    std::vector<char> readBuffer_;
};

}  // namespace kavri::broker

#endif
