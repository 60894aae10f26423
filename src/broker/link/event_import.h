// Events of other brokers, for the subscribers here: a feed for each category that is
// imported and subscribed to.
//
// Subscribers whose events were missed are told by the end of their connection, with the
// reason: their program connects again, and knows.
#ifndef KAVRI_BROKER_LINK_EVENT_IMPORT_H
#define KAVRI_BROKER_LINK_EVENT_IMPORT_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "broker/link/inbox.h"
#include "broker/link/link_line.h"
#include "broker/link/link_options.h"
#include "broker/link/publisher_numbers.h"
#include "broker/session/transport.h"

namespace kavri::broker {

class EventImport {
  public:
    // What may wait for slow subscribers of one category.
    static constexpr std::size_t mostWaitingBytes = 4 * wire::mebibyte;

    EventImport(LinkLine& line, const LinkOptions& options);
    EventImport(const EventImport&) = delete;
    EventImport& operator=(const EventImport&) = delete;
    ~EventImport();

    // Begins or ends the category's feed, by who is subscribed.
    void subscribersChanged(Category& category);

    // False where the message is of no feed. Adds what its delivery costs to `costBytes`.
    bool handle(const Bus::Message& message, std::size_t& costBytes);
    // The link was down: something may have been missed in each category.
    void missedAll();

    bool hasWork() const { return !inputs_.empty(); }
    void advance();

    std::size_t size() const { return feeds_.size(); }

  private:
    // Of so many categories, the numbers are kept after their last subscriber left.
    static constexpr std::size_t mostEnded = 64;

    class Feed;

    void begin(Category& category);
    void end(Feed& feed);
    // It is subscribed to no longer.
    void forget(Feed& feed);
    void missed(const Category& category, std::string_view why);
    void ended(Feed& feed);

    LinkLine& line_;
    const LinkOptions& options_;
    std::map<const Category*, Feed*> feeds_;
    std::unordered_map<Bus::SubscriptionId, Feed*> bySubscription_;
    std::vector<std::unique_ptr<Feed>> all_;  // and those that end with this round
    std::map<std::string, PublisherNumbers, std::less<>> ended_;  // of feeds, by category
    std::vector<Feed*> inputs_;                                   // with input that is wanted now
};

}  // namespace kavri::broker

#endif
