// The other brokers that this one exchanges messages with.
#ifndef KAVRI_BROKER_LINK_NEIGHBOURS_H
#define KAVRI_BROKER_LINK_NEIGHBOURS_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "broker/link/association.h"
#include "broker/link/link_line.h"

namespace kavri::broker {

class Neighbours {
  public:
    // lost: called when an association ends, for what was begun in it.
    Neighbours(LinkLine& line, std::function<void(const BrokerIdentity&)> lost)
        : line_(line), lost_(std::move(lost)) {}

    void send(const BrokerIdentity& to, Envelope envelope, std::string_view content = {});

    enum class Received {
        next,     // of its sender's: to be handled
        settled,  // only about the association: it was answered here
        stray,    // not the next: the sender is told, and begins anew
    };
    Received receive(const Envelope& envelope, std::string_view content);

    void addChannel(const BrokerIdentity& to) { with(to).addChannel(line_.now); }
    void removeChannel(const BrokerIdentity& to);

    // Pings those with channels, and ends what is silent or idle.
    void keepUp();
    std::optional<Clock::time_point> due() const;

    // The way to all of them is lost.
    void loseAll();
    void lose(const BrokerIdentity& broker, std::string_view reason);

    // For reports: one of them, as far as it is known.
    void describe(const BrokerIdentity& broker, Lines& lines) const;
    std::size_t size() const { return associations_.size(); }

    const std::map<BrokerIdentity, Association>& all() const { return associations_; }

  private:
    // Whoever may publish could otherwise make up senders without end.
    static constexpr std::size_t mostAssociations = 65536;

    bool isFullFor(const BrokerIdentity& broker) const {
        return associations_.size() >= mostAssociations && !associations_.contains(broker);
    }
    Association& with(const BrokerIdentity& broker);
    void reset(const BrokerIdentity& to, std::uint64_t ownEpoch, std::uint64_t otherEpoch);
    void answer(Association& association, const Envelope& envelope, std::string_view content);

    LinkLine& line_;
    std::function<void(const BrokerIdentity&)> lost_;
    std::map<BrokerIdentity, Association> associations_;
    std::uint64_t epochs_ = 0;
    Clock::time_point nextLook_{};
    std::string message_;
};

}  // namespace kavri::broker

#endif
