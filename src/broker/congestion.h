// What the broker keeps of a peer that does not take everything at once: how
// fast it drains, and who waits for it. A peer that keeps up has none.
#ifndef KAVRI_BROKER_CONGESTION_H
#define KAVRI_BROKER_CONGESTION_H

#include <cstddef>
#include <cstdint>

#include "broker/drain_meter.h"

namespace kavri::broker {

struct Session;

// Blocked senders in the order in which they began to wait. The links are in the
// sessions: a sender waits in one line at most.
class WaitingLine {
  public:
    bool empty() const { return first_ == nullptr; }
    Session* first() const { return first_; }
    void append(Session& sender);
    void prepend(Session& sender);
    void remove(Session& sender);

  private:
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
