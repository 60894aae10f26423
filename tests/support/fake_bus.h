// A bus in memory, for tests: a hub in place of the servers, and a FakeBus for each broker.
//
// The test moves its clock and decides what goes wrong: delays, losses, partitions of one
// direction or both, and connections that break. The rest is decided by the seed alone.
#ifndef KAVRI_TESTS_SUPPORT_FAKE_BUS_H
#define KAVRI_TESTS_SUPPORT_FAKE_BUS_H

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "broker/link/bus.h"
#include "broker/session/drain_meter.h"

namespace kavri::tests {

// Whether a server takes a message with it: tokens that are not empty, of visible
// characters, without wildcards.
inline bool isPublishableSubject(std::string_view subject) {
    const bool hasEmptyToken = subject.empty() || subject.front() == '.' || subject.back() == '.' ||
                               subject.find("..") != std::string_view::npos;
    return !hasEmptyToken && subject.size() < 4096 && std::ranges::all_of(subject, [](char byte) {
        return byte > ' ' && byte < 0x7f && byte != '*' && byte != '>';
    });
}

// Whether a subscription to `pattern`, whose last token may be "*", gets the subject.
inline bool isSubscribedTo(std::string_view pattern, std::string_view subject) {
    if (!pattern.ends_with(".*")) {
        return pattern == subject;
    }
    const std::string_view beginning = pattern.substr(0, pattern.size() - 1);
    return subject.starts_with(beginning) &&
           subject.find('.', beginning.size()) == std::string_view::npos;
}

class FakeBus;

class FakeHub {
  public:
    using Place = std::size_t;  // of a bus; the first is 0

    explicit FakeHub(std::uint64_t seed = 1) : random_(seed) {}
    FakeHub(const FakeHub&) = delete;
    FakeHub& operator=(const FakeHub&) = delete;

    broker::Clock::time_point now = broker::Clock::time_point{} + std::chrono::hours(1);
    broker::Clock::duration leastDelay{};
    broker::Clock::duration mostDelay{};
    std::uint64_t lostPerMille = 0;
    std::size_t mostDataBytes = std::size_t{1} << 20U;
    // Whether questions still go to those beyond a partition, as before it is noticed.
    bool asksBeyondCuts = false;
    // Loses the messages that a test names.
    std::function<bool(std::string_view subject, std::string_view data)> loses;
    // Called for each message that is published.
    std::function<void(std::string_view subject)> sees = [](std::string_view) {};

    std::uint64_t below(std::uint64_t limit) { return random_() % limit; }

    std::unique_ptr<FakeBus> connect();

    void cut(Place from, Place to) { cuts_.insert({from, to}); }
    void heal(Place from, Place to) { cuts_.erase({from, to}); }
    void healAll() { cuts_.clear(); }
    // By somebody who may connect to the servers and is no broker.
    void inject(std::string subject, std::string data, std::string replyTo = {});

  private:
    friend class FakeBus;

    struct Published {
        std::string subject;
        std::string data;
        std::string replyTo;
    };

    static constexpr Place nowhere = SIZE_MAX;

    void route(Place from, const Published& message);
    void deliver(Place from, Place to, broker::Bus::SubscriptionId subscription,
                 const Published& message, bool nobodyListens = false);
    bool isReachable(Place from, Place to) const { return !cuts_.contains({from, to}); }

    std::mt19937_64 random_;
    std::vector<FakeBus*> buses_;  // null where the broker is gone
    std::set<std::pair<Place, Place>> cuts_;
    std::map<std::pair<Place, Place>, broker::Clock::time_point> latest_;
};

class FakeBus : public broker::Bus {
  public:
    FakeBus(FakeHub& hub, FakeHub::Place itsPlace) : place(itsPlace), hub_(hub) { reconnect(); }
    ~FakeBus() override { hub_.buses_[place] = nullptr; }

    const FakeHub::Place place;
    // What a flush hands over at most.
    std::size_t mostFlushedBytes = SIZE_MAX;

    // The server is lost, and with it all that was on its way; the broker learns of it by the
    // next handle.
    void disconnect() {
        actual_.isUp = false;
        actual_.server.clear();
        actual_.failure = "the server is gone";
        outbox_.clear();
        queuedBytes_ = 0;
        arriving_.clear();
    }
    void reconnect() {
        if (!actual_.isUp) {
            outbox_.clear();
            queuedBytes_ = 0;
            actual_.isUp = true;
            ++actual_.times;
            actual_.server = "fake:4222";
            actual_.mostDataBytes = hub_.mostDataBytes;
        }
    }

    // In place of a descriptor.
    bool isReadable() const {
        return hasNews() || (!arriving_.empty() && arriving_.begin()->first <= hub_.now);
    }
    int descriptor() const override { return -1; }

    void handle() override {
        spoil();
        shown_ = actual_;
        for (std::size_t i = 0; i < messagesPerRead && isReadable(); ++i) {
            readable_.push_back(std::move(arriving_.begin()->second));
            arriving_.erase(arriving_.begin());
        }
    }

    std::optional<Message> next() override {
        spoil();
        if (readable_.empty()) {
            return std::nullopt;
        }
        current_ = std::move(readable_.front());
        readable_.pop_front();
        return Message{current_.subscription, current_.subject, current_.replyTo, current_.data,
                       current_.nobodyListens};
    }

    const Connection& connection() const override { return shown_; }

    SubscriptionId subscribe(std::string_view subject, std::string_view queue) override {
        spoil();
        const std::string_view fixed =
            subject.ends_with(".*") ? subject.substr(0, subject.size() - 2) : subject;
        require(isPublishableSubject(fixed), "no subject to subscribe to: ", subject);
        subscriptions_[++lastSubscription_] = {std::string(subject), std::string(queue)};
        return lastSubscription_;
    }
    SubscriptionId subscribeAnswers(std::string_view subject) override {
        return subscribe(subject, {});
    }
    void unsubscribe(SubscriptionId subscription) override {
        spoil();
        require(subscriptions_.erase(subscription) == 1, "not subscribed", "");
        std::erase_if(readable_, [subscription](const Arrived& message) {
            return message.subscription == subscription;
        });
        std::erase_if(arriving_, [subscription](const auto& message) {
            return message.second.subscription == subscription;
        });
    }

    bool publish(std::string_view subject, std::string_view data,
                 std::string_view replyTo) override {
        FakeHub::Published message{std::string(subject), std::string(data), std::string(replyTo)};
        spoil();
        require(isPublishableSubject(message.subject), "no subject: ", message.subject);
        require(replyTo.empty() || isPublishableSubject(message.replyTo),
                "no subject: ", message.replyTo);
        if (!shown_.isUp || data.size() > shown_.mostDataBytes) {
            return false;
        }
        queuedBytes_ += message.data.size();
        outbox_.push_back(std::move(message));
        return true;
    }

    bool flush() override {
        spoil();
        const bool hadSome = !outbox_.empty();
        std::size_t flushed = 0;
        while (actual_.isUp && !outbox_.empty() && flushed < mostFlushedBytes) {
            const FakeHub::Published message = std::move(outbox_.front());
            outbox_.pop_front();
            flushed += message.data.size();
            queuedBytes_ -= message.data.size();
            hub_.route(place, message);
        }
        return hadSome;
    }
    std::size_t queuedBytes() const override { return queuedBytes_; }

    std::size_t subscriptions() const { return subscriptions_.size(); }

  private:
    friend class FakeHub;

    static constexpr std::size_t messagesPerRead = 64;

    struct Subscribed {
        std::string subject;
        std::string queue;
    };
    struct Arrived {
        SubscriptionId subscription = 0;
        bool nobodyListens = false;
        std::string subject;
        std::string replyTo;
        std::string data;
    };

    static void require(bool isSo, std::string_view what, std::string_view which) {
        if (!isSo) {
            throw std::logic_error(std::string(what) + std::string(which));
        }
    }
    bool hasNews() const { return actual_.isUp != shown_.isUp || actual_.times != shown_.times; }
    // What was given out is valid until the next call only.
    void spoil() {
        for (std::string* text : {&current_.subject, &current_.replyTo, &current_.data}) {
            std::ranges::fill(*text, '\xdd');
        }
    }

    FakeHub& hub_;
    Connection actual_;
    Connection shown_;
    SubscriptionId lastSubscription_ = 0;
    std::map<SubscriptionId, Subscribed> subscriptions_;
    std::deque<FakeHub::Published> outbox_;
    std::size_t queuedBytes_ = 0;
    std::multimap<broker::Clock::time_point, Arrived> arriving_;
    std::deque<Arrived> readable_;
    Arrived current_;
};

inline std::unique_ptr<FakeBus> FakeHub::connect() {
    buses_.push_back(nullptr);
    auto bus = std::make_unique<FakeBus>(*this, buses_.size() - 1);
    buses_.back() = bus.get();
    return bus;
}

inline void FakeHub::inject(std::string subject, std::string data, std::string replyTo) {
    route(nowhere, {std::move(subject), std::move(data), std::move(replyTo)});
}

inline void FakeHub::route(Place from, const Published& message) {
    sees(message.subject);
    struct Receiver {
        Place place;
        broker::Bus::SubscriptionId subscription;
    };
    std::vector<Receiver> all;
    std::map<std::string, std::vector<Receiver>> queues;
    for (const FakeBus* bus : buses_) {
        const bool isKnown = bus != nullptr && bus->actual_.isUp &&
                             (asksBeyondCuts || isReachable(from, bus->place));
        if (!isKnown) {
            continue;
        }
        for (const auto& [id, subscribed] : bus->subscriptions_) {
            if (isSubscribedTo(subscribed.subject, message.subject)) {
                (subscribed.queue.empty() ? all : queues[subscribed.queue])
                    .push_back({bus->place, id});
            }
        }
    }
    for (const auto& [queue, members] : queues) {
        all.push_back(members[below(members.size())]);
    }
    for (const Receiver& receiver : all) {
        deliver(from, receiver.place, receiver.subscription, message);
    }
    if (all.empty() && !message.replyTo.empty() && from != nowhere) {
        for (const auto& [id, subscribed] : buses_[from]->subscriptions_) {
            if (isSubscribedTo(subscribed.subject, message.replyTo)) {
                deliver(from, from, id, {message.replyTo, {}, {}}, true);
            }
        }
    }
}

// What one broker publishes reaches another in its order.
inline void FakeHub::deliver(Place from, Place to, broker::Bus::SubscriptionId subscription,
                             const Published& message, bool nobodyListens) {
    const auto spread = static_cast<std::uint64_t>((mostDelay - leastDelay).count());
    const broker::Clock::duration delay =
        leastDelay + broker::Clock::duration(spread == 0 ? 0 : below(spread));
    const bool isLost = !isReachable(from, to) ||
                        (lostPerMille > 0 && below(1000) < lostPerMille) ||
                        (loses && loses(message.subject, message.data));
    if (isLost) {
        return;
    }
    broker::Clock::time_point& latest = latest_[{from, to}];
    latest = std::max(latest, now + delay);
    buses_[to]->arriving_.emplace(
        latest, FakeBus::Arrived{subscription, nobodyListens, message.subject, message.replyTo,
                                 message.data});
}

}  // namespace kavri::tests

#endif
