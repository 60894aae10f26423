// Subscriptions and their messages; see subscriptions.h.
#include "link_nats/subscriptions.h"

#include <algorithm>

#include "base/assert.h"

namespace kavri::link_nats {

namespace {

// libnats frees messages on a thread of its own, which is woken for each batch instead of
// for each message.
constexpr std::size_t mostSpentMessages = 64;
constexpr std::size_t mostSpentBytes = 64U << 10U;

std::uint64_t queuedMessages(natsSubscription* subscription) {
    std::uint64_t count = 0;
    natsSubscription_QueuedMsgs(subscription, &count);
    return count;
}

}  // namespace

Subscriptions::~Subscriptions() {
    destroySpent();
}

void Subscriptions::attach(natsConnection* connection) {
    natsStatistics* made = nullptr;
    KAVRI_ASSERT(natsStatistics_Create(&made) == NATS_OK, "there is memory for three numbers");
    statistics_.reset(made);
    connection_ = connection;
    for (Entry& entry : entries_) {
        subscribe(entry);
    }
}

void Subscriptions::detach() {
    connection_ = nullptr;
    readMessages_ = 0;
    arrivedMessages_ = 0;
    currentMessages_ = 0;
    for (Entry& entry : entries_) {
        entry.subscription.reset();
    }
}

Subscriptions::Id Subscriptions::add(std::string_view subject, std::string_view queue) {
    entries_.push_front({++lastId_, std::string(subject), std::string(queue), nullptr});
    byId_.emplace(lastId_, entries_.begin());
    if (connection_ != nullptr) {
        subscribe(entries_.front());
    }
    return lastId_;
}

// Fails only where the connection is lost, which is noticed elsewhere.
void Subscriptions::subscribe(Entry& entry) const {
    natsSubscription* made = nullptr;
    const natsStatus status =
        entry.queue.empty()
            ? natsConnection_SubscribeSync(&made, connection_, entry.subject.c_str())
            : natsConnection_QueueSubscribeSync(&made, connection_, entry.subject.c_str(),
                                                entry.queue.c_str());
    KAVRI_ASSERT(status != NATS_INVALID_SUBJECT && status != NATS_INVALID_QUEUE_NAME,
                 "subjects are made from encoded names");
    entry.subscription.reset(made);
    if (made != nullptr) {
        // What was read is taken before more is read: that is the limit.
        natsSubscription_SetPendingLimits(made, -1, -1);
    }
}

void Subscriptions::remove(Id id) {
    const auto found = byId_.find(id);
    KAVRI_ASSERT(found != byId_.end(), "a subscription is removed once");
    const Entries::iterator entry = found->second;
    arrivedMessages_ -= std::min(arrivedMessages_, queuedMessages(entry->subscription.get()));
    if (current_ == entry) {
        currentMessages_ = 0;
    }
    if (search_ == entry) {
        ++search_;
    }
    byId_.erase(found);
    entries_.erase(entry);
}

void Subscriptions::noteArrivals() {
    std::uint64_t read = 0;
    natsConnection_GetStats(connection_, statistics_.get());
    natsStatistics_GetCounts(statistics_.get(), &read, nullptr, nullptr, nullptr, nullptr);
    arrivedMessages_ += read - readMessages_;
    readMessages_ = read;
    search_ = entries_.begin();
}

std::optional<broker::Bus::Message> Subscriptions::next() {
    if (arrivedMessages_ == 0 || (currentMessages_ == 0 && !findArrivals())) {
        return {};
    }
    natsMsg* message = nullptr;
    if (natsSubscription_NextMsg(&message, current_->subscription.get(), 0) != NATS_OK) {
        // The connection is lost, which a thread of libnats has noticed first.
        arrivedMessages_ = 0;
        currentMessages_ = 0;
        return {};
    }
    --arrivedMessages_;
    --currentMessages_;
    spend(message);
    return describe(message);
}

// Where none is found, the rest came for what is not subscribed to any more.
bool Subscriptions::findArrivals() {
    while (search_ != entries_.end()) {
        const Entries::iterator entry = search_++;
        currentMessages_ = queuedMessages(entry->subscription.get());
        if (currentMessages_ > 0) {
            current_ = entry;
            entries_.splice(entries_.begin(), entries_, entry);
            return true;
        }
    }
    arrivedMessages_ = 0;
    return false;
}

broker::Bus::Message Subscriptions::describe(natsMsg* message) const {
    const char* const replyTo = natsMsg_GetReply(message);
    const auto bytes = static_cast<std::size_t>(natsMsg_GetDataLength(message));
    return {.subscription = current_->id,
            .subject = natsMsg_GetSubject(message),
            .replyTo = replyTo == nullptr ? std::string_view() : replyTo,
            .data = {natsMsg_GetData(message), bytes},
            .nobodyListens = bytes == 0 && natsMsg_IsNoResponders(message)};
}

// The message stays valid until the next one is spent.
void Subscriptions::spend(natsMsg* message) {
    if (spent_.size() >= mostSpentMessages || spentBytes_ >= mostSpentBytes) {
        destroySpent();
    }
    spent_.push_back(message);
    spentBytes_ += static_cast<std::size_t>(natsMsg_GetDataLength(message));
}

void Subscriptions::destroySpent() {
    std::ranges::for_each(spent_, natsMsg_Destroy);
    spent_.clear();
    spentBytes_ = 0;
}

}  // namespace kavri::link_nats
