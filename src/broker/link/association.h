// What one broker knows of another while they exchange messages: the numbers of the messages
// each way, so that a lost one is noticed, and which ping was answered last. No I/O.
//
// Each side counts in an epoch of its own, and says from which of the other's it has heard. A
// number that was not expected, or silence, ends the association on the side that notices; its
// reset ends it on the other. What is still on its way from earlier epochs changes nothing:
// otherwise each side's new beginning could end the other's without end.
#ifndef KAVRI_BROKER_LINK_ASSOCIATION_H
#define KAVRI_BROKER_LINK_ASSOCIATION_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "broker/link/envelope.h"
#include "broker/link/link_options.h"
#include "broker/session/drain_meter.h"

namespace kavri::broker {

class Association {
  public:
    // A broker that has not answered what was sent this long ago is lost. That it is heard is
    // not enough: perhaps it does not hear, or what comes is late.
    static constexpr std::chrono::milliseconds silence{2000};
    static constexpr std::chrono::milliseconds pingEvery{500};
    // Without channels, it is forgotten after this.
    static constexpr std::chrono::milliseconds idle{10000};

    Association(std::uint64_t ownEpoch, Clock::time_point now)
        : ownEpoch_(ownEpoch), answered_(now), used_(now) {}

    // Fills in what tells the other side the place of a message to be sent.
    void number(Envelope& envelope) {
        envelope.epoch = ownEpoch_;
        envelope.number = nextToSend_++;
        envelope.heardEpoch = otherEpoch_;
    }

    enum class Judgement {
        expected,    // the next one
        begunAnew,   // the first of a new epoch: the other side had forgotten this one
        joinedAnew,  // likewise, but it has heard from the present epoch of this side
        lostSome,    // after one that was lost
        unaware,     // the sender does not know yet that this side has begun anew
        outdated,    // of an epoch that the sender itself has ended
    };
    Judgement judge(const Envelope& envelope) const {
        if (envelope.heardEpoch != 0 && envelope.heardEpoch != ownEpoch_) {
            return Judgement::unaware;
        }
        if (envelope.epoch == otherEpoch_) {
            return envelope.number == nextExpected_ ? Judgement::expected : Judgement::lostSome;
        }
        if (envelope.epoch < otherEpoch_) {
            return Judgement::outdated;
        }
        if (envelope.number != 0) {
            return Judgement::lostSome;
        }
        return otherEpoch_ == 0           ? Judgement::expected
               : envelope.heardEpoch == 0 ? Judgement::begunAnew
                                          : Judgement::joinedAnew;
    }
    // Of one that is handled.
    void accept(const Envelope& envelope) {
        otherEpoch_ = envelope.epoch;
        nextExpected_ = envelope.number + 1;
    }

    std::uint64_t ownEpoch() const { return ownEpoch_; }
    // Whether a reset is about the present epoch of either side.
    bool isMeantBy(const Envelope& reset) const {
        return reset.value == ownEpoch_ || (reset.epoch != 0 && reset.epoch == otherEpoch_);
    }

    bool isSilent(Clock::time_point now) const { return now - answered_ >= silence; }
    void ponged(Clock::time_point sent, Clock::time_point now) {
        roundTrip_ = now - sent;
        answered_ = std::clamp(sent, answered_, std::max(answered_, now));
    }
    Clock::duration roundTrip() const { return roundTrip_; }

    // What it calls itself, unless that is no name.
    void call(std::string_view name) {
        if (isBrokerName(name)) {
            name_ = name;
        }
    }
    const std::string& name() const { return name_; }

    void addChannel(Clock::time_point now) {
        if (channels_++ == 0) {
            answered_ = now;  // while there were none, nothing was asked
        }
    }
    void removeChannel(Clock::time_point now) {
        --channels_;
        used_ = now;
    }
    void removeAllChannels(Clock::time_point now) {
        channels_ = 0;
        used_ = now;
    }
    std::size_t channels() const { return channels_; }
    bool isIdle(Clock::time_point now) const { return channels_ == 0 && now - used_ >= idle; }

  private:
    const std::uint64_t ownEpoch_;
    std::uint64_t nextToSend_ = 0;
    std::uint64_t otherEpoch_ = 0;  // 0: nothing was heard yet
    std::uint64_t nextExpected_ = 0;
    Clock::time_point answered_;  // the ping that was sent last, of those that were answered: when
    Clock::time_point used_;
    Clock::duration roundTrip_{};
    std::string name_;
    std::size_t channels_ = 0;
};

}  // namespace kavri::broker

#endif
