// What is subscribed to, and the messages that came in on it.
//
// libnats sorts what it reads by subscription and does not say which ones got something, only
// how many messages came in altogether. They are looked for where there were some last, and
// only until as many are found.
//
// Of what the server itself answers, synchronous subscriptions do not tell the subject: those
// to answers are asynchronous, and a thread of libnats notes what came.
#ifndef KAVRI_LINK_NATS_SUBSCRIPTIONS_H
#define KAVRI_LINK_NATS_SUBSCRIPTIONS_H

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "broker/link/bus.h"
#include "link_nats/libnats.h"
#include "link_nats/server_answers.h"
#include "link_nats/wakeup.h"

namespace kavri::link_nats {

class Subscriptions {
  public:
    using Id = broker::Bus::SubscriptionId;

    explicit Subscriptions(std::shared_ptr<const Wakeup> wakeup) : wakeup_(std::move(wakeup)) {}
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;
    ~Subscriptions();

    // Makes all of them at the connection, which outlives its loss here.
    void attach(natsConnection* connection);
    // What came in and was not taken is dropped.
    void detach();

    Id add(std::string_view subject, std::string_view queue);
    Id addForAnswers(std::string_view subject);
    void remove(Id id);

    // After each read.
    void noteArrivals();
    std::optional<broker::Bus::Message> next();

  private:
    struct Entry {
        Id id;
        std::string subject;
        std::string queue;
        bool isForAnswers = false;
        Subscription subscription;
    };
    using Entries = std::list<Entry>;

    Id add(Entry entry);
    void subscribe(Entry& entry) const;
    std::optional<broker::Bus::Message> nextAnswer();
    bool findArrivals();
    broker::Bus::Message describe(natsMsg* message) const;
    void spend(natsMsg* message);
    void destroySpent();

    const std::shared_ptr<const Wakeup> wakeup_;
    natsConnection* connection_ = nullptr;
    std::shared_ptr<ServerAnswers> answers_;  // of this connection
    std::string answer_;                      // the subject of the one that was taken last
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
