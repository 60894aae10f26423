// Flow control: which frame has to wait for which peer, and who is resumed when.
// No I/O, no clock.
//
// A session whose send queue is at the high-water mark (three quarters of its
// limit, or of its user's) is congested. Those who send to it are not read from
// while it drains at least at the drain rate; one that does not is not waited
// for: requests to it are refused, responses and events fill its queue to the
// limit, at which it is closed.
//
// Blocked senders stand in two lines at the session that they wait for, one for
// large requests and one for everything else, and are resumed in the order in
// which they began to wait. A large request goes when hardly anything is queued
// ahead of it, so that a small one never has many large ones before it; and only
// so many bytes pass a large one, so that it does not starve. A newcomer waits
// behind those of its line. Waiting costs nothing; resuming costs one step for
// each sender resumed.
#ifndef KAVRI_BROKER_FLOW_CONTROL_H
#define KAVRI_BROKER_FLOW_CONTROL_H

#include <cstddef>

#include "broker/session.h"
#include "interfaces/limits.h"

namespace kavri::broker {

class FlowControl {
  public:
    // What may be queued ahead of a large request when it goes.
    static constexpr std::size_t aheadOfLargeBytes = 64 * interfaces::kibibyte;
    // What may pass a large request that waits.
    static constexpr std::size_t passingLargeBytes = 256 * interfaces::kibibyte;

    enum class Verdict { deliver, wait, refuse };

    explicit FlowControl(const interfaces::Limits& limits) : limits_(limits) {}

    // Counts what is to be delivered as what passes a large request that waits.
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
    // Whether a large request is left in its sender's socket until it is its turn:
    // where many wait for a responder, no more than a quarter of the share is held
    // for them.
    bool mustWaitToBegin(Session& from, const Session& responder, std::size_t frameBytes) const;
    bool isShort(const Session& session, std::size_t bytes) const {
        return session.account.memory.bytes() + bytes > limits_.bytesPerUser / 4;
    }

    // The session begins to wait for the other one, or for itself.
    void block(Session& sender, Session& on, Clock::time_point now);
    // It no longer waits.
    static void unblock(Session& sender);

    // Resumes those that wait for the session, one after the other, as far as there
    // is room: each is unblocked and has its turn while `resume` handles what was
    // read from it before it had to wait. One that sends nothing and is not done
    // either ends the turns, until something else happens.
    template <typename Resume>
    void resumeWaiting(Session& at, const Resume& resume) {
        while (Session* const sender = resumeNext(at)) {
            const std::size_t before = at.sendQueue.bytes();
            resume(*sender);
            const bool isNotDone = sender->blockedOn == &at || sender->isLetIn;
            if (isNotDone && at.sendQueue.bytes() == before) {
                break;
            }
        }
        turn_ = {};
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
        return from.isLetIn || (turn_.sender == &from && turn_.at == &at);
    }
    Session* resumeNext(Session& at);
    Session* nextAt(Session& at) const;

    const interfaces::Limits& limits_;
    Turn turn_;
};

}  // namespace kavri::broker

#endif
