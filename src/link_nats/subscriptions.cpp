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
    answers_ = std::make_shared<ServerAnswers>(wakeup_);
    for (Entry& entry : entries_) {
        subscribe(entry);
    }
}

void Subscriptions::detach() {
    connection_ = nullptr;
    answers_.reset();
    readMessages_ = 0;
    arrivedMessages_ = 0;
    currentMessages_ = 0;
    for (Entry& entry : entries_) {
        entry.subscription.reset();
    }
}

Subscriptions::Id Subscriptions::add(std::string_view subject, std::string_view queue) {
    return add({++lastId_, std::string(subject), std::string(queue), false, nullptr});
}

Subscriptions::Id Subscriptions::addForAnswers(std::string_view subject) {
    return add({++lastId_, std::string(subject), {}, true, nullptr});
}

Subscriptions::Id Subscriptions::add(Entry entry) {
    entries_.push_front(std::move(entry));
    byId_.emplace(lastId_, entries_.begin());
    if (connection_ != nullptr) {
        subscribe(entries_.front());
    }
    return lastId_;
}

// Fails only where the connection is lost, which is noticed elsewhere.
void Subscriptions::subscribe(Entry& entry) const {
    if (entry.isForAnswers) {
        entry.subscription.reset(
            ServerAnswers::subscribe(answers_, connection_, entry.subject, entry.id));
        return;
    }
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
    if (!entry->isForAnswers) {
        arrivedMessages_ -= std::min(arrivedMessages_, queuedMessages(entry->subscription.get()));
    }
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
    if (auto answer = nextAnswer()) {
        return answer;
    }
    natsStatus status = NATS_NO_RESPONDERS;
    natsMsg* message = nullptr;
    while (status == NATS_NO_RESPONDERS) {  // an answer that is for nobody
        if (arrivedMessages_ == 0 || (currentMessages_ == 0 && !findArrivals())) {
            return {};
        }
        status = natsSubscription_NextMsg(&message, current_->subscription.get(), 0);
        --arrivedMessages_;
        --currentMessages_;
    }
    if (status != NATS_OK) {
        // The connection is lost, which a thread of libnats has noticed first.
        arrivedMessages_ = 0;
        currentMessages_ = 0;
        return {};
    }
    spend(message);
    return describe(message);
}

std::optional<broker::Bus::Message> Subscriptions::nextAnswer() {
    while (auto answer = answers_ == nullptr ? std::nullopt : answers_->take()) {
        if (byId_.contains(answer->subscription)) {
            answer_ = std::move(answer->subject);
            return broker::Bus::Message{answer->subscription, answer_, {}, {}, true};
        }
    }
    return {};
}

// Where none is found, the rest came for what is not subscribed to any more.
bool Subscriptions::findArrivals() {
    while (search_ != entries_.end()) {
        const Entries::iterator entry = search_++;
        currentMessages_ = entry->isForAnswers ? 0 : queuedMessages(entry->subscription.get());
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
            .data = {natsMsg_GetData(message), bytes}};
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
