// Events from other brokers; see event_import.h.
#include "broker/link/event_import.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "broker/link/frame_row.h"
#include "broker/link/subjects.h"

namespace kavri::broker {

namespace {

bool isHere(const Session* subscriber) {
    return subscriber->transport == nullptr;
}

}  // namespace

// In the place of a responder that publishes the category's events.
class EventImport::Feed : public Transport {
  public:
    Feed(EventImport& owner, Category& itsCategory, Bus::SubscriptionId itsSubscription)
        : category(&itsCategory), subscription(itsSubscription), owner_(owner) {}

    Category* category;
    const Bus::SubscriptionId subscription;
    PublisherNumbers numbers;

    void attach(Session& session) {
        session_ = &session;
        session.asResponder.served = category;
        inbox_.emplace(session.account.memory);
    }
    Session& session() const { return *session_; }

    // False where there is no room for it.
    bool take(std::string_view frames) {
        if (isInputWanted_ && inbox_->empty()) {
            input_.assign(frames);
            owner_.line_.receive(*session_, input_.data(), input_.size());
            return true;
        }
        if (inbox_->bytes() + frames.size() > mostWaitingBytes ||
            !owner_.line_.router.flowControl().hasShareLeft(*session_, frames.size())) {
            return false;
        }
        inbox_->add(frames);
        return true;
    }
    void handleInput() {
        while (isInputWanted_ && !inbox_->empty() && !session_->isClosing) {
            std::string frames = inbox_->take();
            owner_.line_.receive(*session_, frames.data(), frames.size());
        }
    }

    // Nothing is said to a feed.
    std::size_t send(std::span<const iovec> pieces) override {
        std::size_t bytes = 0;
        for (const iovec& piece : pieces) {
            bytes += piece.iov_len;
        }
        return bytes;
    }
    std::size_t bytesInTransit() const override { return 0; }
    bool mayRequest(std::string_view) const override { return false; }
    void watchInput(bool isWanted) override {
        const bool wasWanted = std::exchange(isInputWanted_, isWanted);
        if (isWanted && !wasWanted && !inbox_->empty()) {
            owner_.inputs_.push_back(this);
        }
    }
    void end() override { owner_.ended(*this); }
    std::optional<std::string_view> categoryCarried() const override { return category->name; }
    void describe(Lines& lines) const override { lines.add("way", "events_in"); }

  private:
    EventImport& owner_;
    Session* session_ = nullptr;
    bool isInputWanted_ = true;
    std::optional<Inbox> inbox_;
    std::string input_;
};

EventImport::EventImport(LinkLine& line, const LinkOptions& options)
    : line_(line), options_(options) {}

EventImport::~EventImport() = default;

void EventImport::subscribersChanged(Category& category) {
    const auto known = feeds_.find(&category);
    const bool isWanted = options_.isImported(category.name) &&
                          category.policy->serve.contains(linkUser) &&
                          category.name.size() <= longestLinkedCategory &&
                          std::ranges::any_of(category.subscribers, isHere);
    if (isWanted && known == feeds_.end()) {
        begin(category);
    } else if (!isWanted && known != feeds_.end()) {
        end(*known->second);
    }
}

void EventImport::begin(Category& category) {
    const Bus::SubscriptionId subscription = line_.bus.subscribe(eventsSubject(category.name));
    auto feed = std::make_unique<Feed>(*this, category, subscription);
    Session* const session = line_.openSession(Role::responder, *feed, nullptr);
    if (session == nullptr) {
        line_.bus.unsubscribe(subscription);
        return;
    }
    feed->attach(*session);
    if (auto known = ended_.extract(category.name)) {
        feed->numbers = std::move(known.mapped());
    }
    feeds_.emplace(&category, feed.get());
    bySubscription_.emplace(subscription, feed.get());
    all_.push_back(std::move(feed));
}

void EventImport::forget(Feed& feed) {
    line_.bus.unsubscribe(feed.subscription);
    bySubscription_.erase(feed.subscription);
    feeds_.erase(feed.category);
    if (ended_.size() >= mostEnded) {
        ended_.erase(ended_.begin());
    }
    feed.numbers.pause();
    ended_.insert_or_assign(feed.category->name, std::move(feed.numbers));
}

// Its category may be gone when the session is.
void EventImport::end(Feed& feed) {
    forget(feed);
    feed.session().asResponder.served = nullptr;
    line_.closeSession(feed.session(), CloseCause::leftByPeer, {});
}

// Where its session was closed for another reason, its subscribers are told, and a feed begins
// anew when they come back.
void EventImport::ended(Feed& feed) {
    std::erase(inputs_, &feed);
    const Category* told = nullptr;
    if (bySubscription_.contains(feed.subscription)) {
        told = feed.category;
        forget(feed);
    }
    std::erase_if(all_, [&feed](const auto& each) { return each.get() == &feed; });
    if (told != nullptr) {
        missed(*told, "the link could not deliver them");
    }
}

bool EventImport::handle(const Bus::Message& message, std::size_t& costBytes) {
    const auto known = bySubscription_.find(message.subscription);
    if (known == bySubscription_.end()) {
        return false;
    }
    Feed& feed = *known->second;
    const auto opened = openEnvelope(message.data);
    if (!opened || opened->envelope.kind != EnvelopeKind::events ||
        !isWholeFrames(opened->content)) {
        line_.note("what came over the link as an event is none; it is dropped");
        return true;
    }
    if (opened->envelope.sender == line_.identity) {
        return true;  // exported here as well: the subscribers have it already
    }
    const auto order = feed.numbers.orderOf(opened->envelope);
    if (order == PublisherNumbers::Order::repeated || feed.session().isClosing) {
        return true;
    }
    if (order == PublisherNumbers::Order::afterMissed) {
        missed(*feed.category, "the link lost some");
    }
    costBytes += opened->content.size() * feed.category->subscribers.size();
    if (!feed.take(opened->content)) {
        missed(*feed.category, "a subscriber is too slow for them");
    }
    return true;
}

void EventImport::missedAll() {
    for (const auto& [category, feed] : feeds_) {
        missed(*category, "the link was down");
    }
}

void EventImport::missed(const Category& category, std::string_view why) {
    const std::string reason = "events of category \"" + category.name.substr(0, 100) +
                               "\" from other machines were missed: " + std::string(why);
    for (Session* subscriber : category.subscribers) {
        if (isHere(subscriber)) {
            line_.closeSession(*subscriber, CloseCause::eventsMissed, reason);
        }
    }
}

void EventImport::advance() {
    for (Feed* feed : std::exchange(inputs_, {})) {
        feed->handleInput();
    }
}

}  // namespace kavri::broker
