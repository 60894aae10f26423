// The state of a peer that is behind: how fast it drains its send queue, and which
// senders are blocked on it. A peer that keeps up has none.
#ifndef KAVRI_BROKER_SESSION_CONGESTION_H
#define KAVRI_BROKER_SESSION_CONGESTION_H

#include <cstddef>
#include <cstdint>

#include "broker/session/drain_meter.h"

namespace kavri::broker {

struct Session;

class WaitingLine;

// Of a blocked session: for whom it waits, and its neighbours in the line there.
struct WaitingPlace {
    Session* on = nullptr;
    WaitingLine* line = nullptr;
    Session* previous = nullptr;
    Session* next = nullptr;
    // It is this session's turn as soon as its large request is complete.
    bool isLetIn = false;
};

// Blocked senders in the order in which they began to wait. The links are in the
// sessions: a sender waits in one line at most.
class WaitingLine {
  public:
    bool empty() const { return first_ == nullptr; }
    Session* first() const { return first_; }
    void append(Session& sender) { insert(sender, last_, nullptr); }
    void prepend(Session& sender) { insert(sender, nullptr, first_); }
    void remove(Session& sender);

  private:
    void insert(Session& sender, Session* previous, Session* next);

    Session* first_ = nullptr;
    Session* last_ = nullptr;
};

struct Congestion {
    explicit Congestion(const DrainMeter& itsMeter) : meter(itsMeter) {}

    DrainMeter meter;
    // What was written to the peer, less what it had not taken when this began.
    std::int64_t writtenBytes = 0;
    bool isMeasured = false;

    WaitingLine senders;
    WaitingLine largeRequests;
    bool waitsForItself = false;
    // What passed the large request that is to go next.
    std::size_t passedBytes = 0;

    bool somebodyWaits() const {
        return !senders.empty() || !largeRequests.empty() || waitsForItself;
    }
};

}  // namespace kavri::broker

#endif
