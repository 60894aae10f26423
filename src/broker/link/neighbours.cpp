// Associations with other brokers; see neighbours.h.
#include "broker/link/neighbours.h"

#include <vector>

#include "broker/link/subjects.h"

namespace kavri::broker {

namespace {

std::uint64_t clockOf(Clock::time_point now) {
    return static_cast<std::uint64_t>(now.time_since_epoch().count());
}

}  // namespace

// The numbers of epochs go up, so that no later association has one of before.
Association& Neighbours::with(const BrokerIdentity& broker) {
    const auto known = associations_.find(broker);
    if (known != associations_.end()) {
        return known->second;
    }
    if (associations_.empty()) {
        nextLook_ = line_.now + Association::pingEvery;
    }
    return associations_.try_emplace(broker, ++epochs_, line_.now).first->second;
}

void Neighbours::send(const BrokerIdentity& to, Envelope envelope, std::string_view content) {
    if (isFullFor(to)) {
        return;
    }
    envelope.sender = line_.identity;
    with(to).number(envelope);
    message_.clear();
    appendEncoded(envelope, message_);
    message_.append(content);
    // One that is not published is one that is lost: the other side misses its number.
    line_.bus.publish(brokerSubject(to), message_);
}

Neighbours::Received Neighbours::receive(const Envelope& envelope, std::string_view content) {
    if (envelope.kind == EnvelopeKind::reset) {
        const auto known = associations_.find(envelope.sender);
        if (known != associations_.end() && known->second.isMeantBy(envelope)) {
            lose(envelope.sender, "it lost messages from here, or forgot about them");
        }
        return Received::settled;
    }
    const auto known = associations_.find(envelope.sender);
    if (known == associations_.end() && (envelope.heardEpoch != 0 || envelope.number != 0)) {
        reset(envelope.sender, envelope.heardEpoch, envelope.epoch);
        return Received::stray;
    }
    if (isFullFor(envelope.sender)) {
        return Received::settled;
    }
    switch (with(envelope.sender).judge(envelope)) {
        case Association::Judgement::unaware:
            reset(envelope.sender, envelope.heardEpoch, 0);
            return Received::stray;
        case Association::Judgement::outdated:
            return Received::stray;
        case Association::Judgement::lostSome:
            lose(envelope.sender, "messages from it were lost");
            reset(envelope.sender, 0, envelope.epoch);
            return Received::stray;
        case Association::Judgement::begunAnew:
            lose(envelope.sender, "it began anew");
            break;
        case Association::Judgement::joinedAnew:
            with(envelope.sender).removeAllChannels(line_.now);
            lost_(envelope.sender);
            break;
        case Association::Judgement::expected:
            break;
    }
    Association& association = with(envelope.sender);
    association.accept(envelope);
    if (envelope.kind != EnvelopeKind::ping && envelope.kind != EnvelopeKind::pong) {
        return Received::next;
    }
    answer(association, envelope, content);
    return Received::settled;
}

void Neighbours::reset(const BrokerIdentity& to, std::uint64_t ownEpoch, std::uint64_t otherEpoch) {
    message_.clear();
    appendEncoded({.kind = EnvelopeKind::reset,
                   .sender = line_.identity,
                   .epoch = ownEpoch,
                   .value = otherEpoch},
                  message_);
    line_.bus.publish(brokerSubject(to), message_);
}

void Neighbours::answer(Association& association, const Envelope& envelope,
                        std::string_view content) {
    if (envelope.kind == EnvelopeKind::ping) {
        association.call(content);
        send(envelope.sender, {.kind = EnvelopeKind::pong, .value = envelope.value});
    } else if (const std::uint64_t clock = clockOf(line_.now); envelope.value <= clock) {
        association.ponged(
            line_.now - Clock::duration(static_cast<Clock::rep>(clock - envelope.value)),
            line_.now);
    }
}

void Neighbours::removeChannel(const BrokerIdentity& to) {
    const auto known = associations_.find(to);
    if (known != associations_.end() && known->second.channels() > 0) {
        known->second.removeChannel(line_.now);
    }
}

std::optional<Clock::time_point> Neighbours::due() const {
    return associations_.empty() ? std::nullopt : std::optional(nextLook_);
}

void Neighbours::keepUp() {
    if (associations_.empty() || line_.now < nextLook_) {
        return;
    }
    nextLook_ = line_.now + Association::pingEvery;
    std::vector<std::pair<BrokerIdentity, std::uint64_t>> silent;
    std::vector<BrokerIdentity> toPing;
    for (const auto& [broker, association] : associations_) {
        if (association.channels() > 0 && association.isSilent(line_.now)) {
            silent.emplace_back(broker, association.ownEpoch());
        } else if (association.channels() > 0) {
            toPing.push_back(broker);
        }
    }
    // Perhaps it hears what it is not heard with.
    for (const auto& [broker, epoch] : silent) {
        reset(broker, epoch, 0);
        lose(broker, "it is silent");
    }
    for (const BrokerIdentity& broker : toPing) {
        send(broker, {.kind = EnvelopeKind::ping, .value = clockOf(line_.now)}, line_.name);
    }
    std::erase_if(associations_,
                  [this](const auto& each) { return each.second.isIdle(line_.now); });
}

void Neighbours::describe(const BrokerIdentity& broker, Lines& lines) const {
    lines.add("broker", hexText(broker));
    const auto known = associations_.find(broker);
    if (known == associations_.end()) {
        return;
    }
    const Association& association = known->second;
    if (!association.name().empty()) {
        lines.add("broker_name", association.name());
    }
    if (association.roundTrip() > Clock::duration::zero()) {
        lines.add("round_trip_us",
                  std::chrono::ceil<std::chrono::microseconds>(association.roundTrip()).count());
    }
}

void Neighbours::loseAll() {
    while (!associations_.empty()) {
        lose(associations_.begin()->first, "the connection to the server is lost");
    }
}

void Neighbours::lose(const BrokerIdentity& broker, std::string_view reason) {
    const BrokerIdentity gone = broker;  // the caller's may be the association's own
    const auto known = associations_.find(gone);
    if (known == associations_.end()) {
        return;
    }
    const bool hadChannels = known->second.channels() > 0;
    associations_.erase(known);
    if (hadChannels) {
        line_.note("lost the broker " + hexText(gone) + ": " + std::string(reason));
    }
    lost_(gone);
}

}  // namespace kavri::broker
