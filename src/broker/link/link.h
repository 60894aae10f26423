// The way to other brokers: requests to categories that are served elsewhere and imported,
// requests from elsewhere to those that are exported, and events of both.
//
// Runs in the broker's event loop, like everything else: the bus never blocks. To router and
// protocol, what is on other machines are sessions of the pseudo user linkUser.
#ifndef KAVRI_BROKER_LINK_LINK_H
#define KAVRI_BROKER_LINK_LINK_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "broker/link/bus.h"
#include "broker/link/channels.h"
#include "broker/link/event_export.h"
#include "broker/link/event_import.h"
#include "broker/link/link_line.h"
#include "broker/link/link_options.h"
#include "broker/link/neighbours.h"
#include "broker/routing/remote_services.h"

namespace kavri::broker {

class Link : public RemoteServices {
  public:
    // Of the line (link_line.h), without what the link adds itself.
    struct Surroundings {
        Router& router;
        const Clock::time_point& now;
        std::function<Session*(Role, Transport&, Session* payer)> openSession;
        std::function<void(Session&, CloseCause, std::string_view reason)> closeSession;
        std::function<void(Session&, char* bytes, std::size_t count)> receive;
        std::function<void(std::string_view what)> note;
    };
    // identity: the broker's uuid.
    Link(std::unique_ptr<Bus> bus, LinkOptions options, std::string_view identity,
         Surroundings surroundings);

    // Begins: from now on the router may call.
    void begin();

    // Readable while handle has something to do.
    int descriptor() const { return bus_->descriptor(); }
    void handle();
    // Does what is due in a round: some of what was read, and what time brings.
    void advance();
    bool hasWork() const { return isBehind_ || channels_.hasWork() || import_.hasWork(); }
    std::optional<Clock::time_point> due() const;
    // Writes what the round has published; whether there was anything.
    bool flush();

    void policyChanged();

    Found responderFor(Session& initiator, std::string_view category) override;
    void release(Session& responder) override;
    std::size_t mostFrameBytes() const override { return line_.mostContentBytes(); }
    void serviceChanged(const Category& category) override;
    void subscribersChanged(Category& category) override { import_.subscribersChanged(category); }
    std::string_view describe(Lines& lines) const override;

    const Bus& bus() const { return *bus_; }
    const Channels& channels() const { return channels_; }
    const Neighbours& neighbours() const { return neighbours_; }

  private:
    // How much is delivered in a round, in bytes that are copied.
    static constexpr std::size_t costPerRound = 256 * wire::kibibyte;

    void noteConnection();
    void noteTrouble(const Bus::Connection& connection);
    void handleMessages();
    void handleMessage(const Bus::Message& message, std::size_t& costBytes);
    void handleFromBroker(const Bus::Message& message);
    void handleQuestion(const Bus::Message& message);
    void lose(const BrokerIdentity& broker) { channels_.lose(broker); }
    bool mayBeAsked(std::string_view category) const;

    const std::unique_ptr<Bus> bus_;
    const LinkOptions options_;
    LinkLine line_;
    Neighbours neighbours_;
    Channels channels_;
    EventExport export_;
    EventImport import_;

    std::map<std::string, Bus::SubscriptionId, std::less<>> offers_;
    Bus::SubscriptionId inbox_ = 0;
    Bus::SubscriptionId answers_ = 0;
    std::uint64_t connectionsSeen_ = 0;
    bool wasUp_ = false;
    std::string trouble_;    // noted last
    bool isBehind_ = false;  // there may be messages that were read and not handled
};

}  // namespace kavri::broker

#endif
