// Flow control: which frame has to wait for which peer, and who is resumed when.
// No I/O, no clock.
//
// A session whose send queue is at the high-water mark (three quarters of its
// limit, or of its user's) is congested. Those who send to it are not read from
// while it drains at least at the drain rate; one that does not is not waited
// for: requests to it are refused, responses and events fill its queue to the
// limit, at which it is closed.
//
// Senders blocked on a session wait in two FIFO lines, one for large requests and one
// for everything else. A large request is delivered when the send queue is nearly
// empty, so that a small request never queues behind several large ones; and only so
// many bytes may overtake a waiting large request, so that it does not starve. A new
// sender joins the end of its line. Waiting costs nothing; resuming costs one step for
// each sender resumed.
#ifndef KAVRI_BROKER_ROUTING_FLOW_CONTROL_H
#define KAVRI_BROKER_ROUTING_FLOW_CONTROL_H

#include <cstddef>

#include "broker/session/session.h"
#include "wire/limits.h"

namespace kavri::broker {

class FlowControl {
  public:
    // The most that may be in the send queue when a large request is delivered.
    static constexpr std::size_t aheadOfLargeBytes = 64 * wire::kibibyte;
    // The most that may overtake a large request that waits.
    static constexpr std::size_t passingLargeBytes = 256 * wire::kibibyte;

    enum class Verdict { deliver, wait, refuse };

    explicit FlowControl(const wire::Limits& limits) : limits_(limits) {}

    // Counts a request that it delivers against what may overtake a large one.
    Verdict request(const Session& from, Session& responder, std::size_t frameBytes);
    // Of a response or an event.
    bool mustWait(const Session& from, const Session& receiver) const;

    // At the high-water mark, the low-water mark, or the limit.
    // A user's share counts against those of his sessions that have something
    // queued: a session that takes everything is never slow.
    bool isCongested(const Session& session) const {
        return !session.sendQueue.empty() && isFilledTo(session, 3);
    }
    bool hasRoomAgain(const Session& session) const {
        return session.sendQueue.empty() || !isFilledTo(session, 2);
    }
    bool isFull(const Session& session) const {
        return !session.sendQueue.empty() && isFilledTo(session, 4);
    }

    // Whether the user may be charged for this much more.
    bool hasShareLeft(const Session& session, std::size_t bytes) const {
        return session.account.memory.bytes() + bytes <= limits_.bytesPerUser;
    }
    // Whether a large request stays in its sender's socket until its turn comes: where
    // many wait for a responder, they hold at most a quarter of their user's share.
    bool mustWaitToBegin(Session& from, const Session& responder, std::size_t frameBytes) const;
    bool isShort(const Session& session, std::size_t bytes) const {
        return session.account.memory.bytes() + bytes > limits_.bytesPerUser / 4;
    }

    // Blocks the sender on another session, or on its own send queue.
    void block(Session& sender, Session& on, Clock::time_point now);
    static void unblock(Session& sender);

    // Resumes those that wait for the session, one after the other, as far as there
    // is room and while `mayGoOn`: each is unblocked and has its turn while `resume`
    // handles what was read from it before it had to wait. One that sends nothing and
    // is not done either ends the turns, until something else happens. False where
    // only `mayGoOn` ended them.
    template <typename MayGoOn, typename Resume>
    bool resumeWaiting(Session& at, const MayGoOn& mayGoOn, const Resume& resume) {
        bool isFinished = true;
        while (Session* const sender = nextAt(at)) {
            isFinished = mayGoOn();
            if (!isFinished) {
                break;
            }
            beginTurn(*sender, at);
            const std::size_t before = at.sendQueue.bytes();
            resume(*sender);
            const bool isNotDone = sender->waiting.on == &at || sender->waiting.isLetIn;
            if (isNotDone && at.sendQueue.bytes() == before && !at.isClosing) {
                break;
            }
        }
        turn_ = {};
        return isFinished;
    }

    // The session's congestion, which is made where there is none.
    Congestion& congestionOf(Session& session, Clock::time_point now) const;

  private:
    struct Turn {
        const Session* sender = nullptr;
        const Session* at = nullptr;
    };

    bool isFilledTo(const Session& session, std::size_t quarters) const {
        return session.sendQueue.bytes() >= limits_.sendQueueBytes / 4 * quarters ||
               session.account.memory.bytes() >= limits_.bytesPerUser / 4 * quarters;
    }
    bool hasTurn(const Session& from, const Session& at) const {
        return from.waiting.isLetIn || (turn_.sender == &from && turn_.at == &at);
    }
    void beginTurn(Session& sender, Session& at);
    Session* nextAt(Session& at) const;

    const wire::Limits& limits_;
    Turn turn_;
};

}  // namespace kavri::broker

#endif
