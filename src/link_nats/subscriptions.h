// What is subscribed to, and the messages that came in on it.
//
// libnats sorts what it reads by subscription and does not say which ones got something, only
// how many messages came in altogether. They are looked for where there were some last, and
// only until as many are found.
#ifndef KAVRI_LINK_NATS_SUBSCRIPTIONS_H
#define KAVRI_LINK_NATS_SUBSCRIPTIONS_H

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "broker/link/bus.h"
#include "link_nats/libnats.h"

namespace kavri::link_nats {

class Subscriptions {
  public:
    using Id = broker::Bus::SubscriptionId;

    Subscriptions() = default;
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;
    ~Subscriptions();

    // Makes all of them at the connection, which outlives its loss here.
    void attach(natsConnection* connection);
    // What came in and was not taken is dropped.
    void detach();

    Id add(std::string_view subject, std::string_view queue);
    void remove(Id id);

    // After each read.
    void noteArrivals();
    std::optional<broker::Bus::Message> next();

  private:
    struct Entry {
        Id id;
        std::string subject;
        std::string queue;
        Subscription subscription;
    };
    using Entries = std::list<Entry>;

    void subscribe(Entry& entry) const;
    bool findArrivals();
    broker::Bus::Message describe(natsMsg* message) const;
    void spend(natsMsg* message);
    void destroySpent();

    natsConnection* connection_ = nullptr;
    Statistics statistics_;
    Id lastId_ = 0;
    Entries entries_;  // those where messages were found last come first
    std::unordered_map<Id, Entries::iterator> byId_;

    std::uint64_t readMessages_ = 0;              // of this connection, since its beginning
    std::uint64_t arrivedMessages_ = 0;           // of these, not taken yet
    Entries::iterator search_ = entries_.end();   // what comes before has none
    Entries::iterator current_ = entries_.end();  // has so many to be taken:
    std::uint64_t currentMessages_ = 0;

    std::vector<natsMsg*> spent_;
    std::size_t spentBytes_ = 0;
};

}  // namespace kavri::link_nats

#endif
