// Events: one publisher, many subscribers, each with a connection and a thread
// of its own.
//
// The publisher sends a batch of events for each request that asks for one. A
// batch is asked for only while at most `batchesAhead` are not yet with every
// subscriber, so that no broker has to drop what nobody could take: every event
// must reach every subscriber, and is checked. Before that, events that are not
// counted are published until every subscriber gets them.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "figures.h"
#include "session.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

constexpr std::uint32_t batchEvents = 256;
constexpr std::uint64_t batchesAhead = 4;
constexpr std::chrono::milliseconds probePause{20};
constexpr double warmUpShare = 0.2;

// Counts what has come to all subscribers.
class Progress {
  public:
    explicit Progress(std::size_t subscribers) : subscribers_(subscribers) {}

    void subscribed() {
        const std::lock_guard lock(mutex_);
        ++reached_;
        changed_.notify_one();
    }
    void tookBatch() {
        const std::lock_guard lock(mutex_);
        ++taken_;
        if (taken_ % subscribers_ == 0) {
            changed_.notify_one();
        }
    }
    bool allSubscribed(std::chrono::milliseconds within) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, within, [this] { return reached_ == subscribers_; });
    }
    // Until `batches` have been taken by every subscriber, as a sum: the order
    // within a subscriber is checked by itself.
    void waitForBatches(std::uint64_t batches) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::milliseconds(patienceMs),
                               [&] { return taken_ >= batches * subscribers_; })) {
            throw std::runtime_error("events did not reach every subscriber in time");
        }
    }

  private:
    const std::uint64_t subscribers_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t reached_ = 0;
    std::uint64_t taken_ = 0;
};

class Subscriber : public MessageSink {
  public:
    explicit Subscriber(Progress& progress) : progress_(progress) {}

    void deliver(std::string_view payload) override {
        if (payload.front() == static_cast<char>(Kind::probe)) {
            if (!isReached_) {
                isReached_ = true;
                progress_.subscribed();
            }
            return;
        }
        check_.next(payload);
        if (check_.count() % batchEvents == 0) {
            progress_.tookBatch();
        }
    }

  private:
    Progress& progress_;
    bool isReached_ = false;
    PayloadCheck check_{Kind::event, smallestPayloadBytes};
};

// Asks the service for events, and takes its answer.
class Publisher {
  public:
    explicit Publisher(const Session& session)
        : client_(session.transport().connect(session.place(), serviceName)) {}

    void probe() { ask({Kind::publish, 0, 1, 1}); }
    void publishBatch() {
        ask({Kind::publish, published_, 0, batchEvents});
        published_ += batchEvents;
    }
    std::uint64_t batches() const { return published_ / batchEvents; }

  private:
    void ask(const Heading& heading) {
        client_->send(payload_.with(heading));
        client_->receive();
    }

    std::unique_ptr<Client> client_;
    Payload payload_;
    std::uint64_t published_ = 0;
};

void reachAll(Publisher& publisher, Progress& progress) {
    const Clock::time_point end = after(patienceMs / 1000.0);
    do {
        publisher.probe();
        if (Clock::now() > end) {
            throw std::runtime_error("subscriptions did not come into effect");
        }
    } while (!progress.allSubscribed(probePause));
}

// Deliveries per second to each subscriber.
double eventsPerSecond(Publisher& publisher, Progress& progress, double seconds) {
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = after(seconds);
    const std::uint64_t already = publisher.batches();
    while (Clock::now() < end) {
        publisher.publishBatch();
        if (publisher.batches() > batchesAhead) {
            progress.waitForBatches(publisher.batches() - batchesAhead);
        }
    }
    progress.waitForBatches(publisher.batches());
    return static_cast<double>(publisher.batches() - already) * batchEvents /
           secondsBetween(begin, Clock::now());
}

}  // namespace

nlohmann::json measureEvents(const Options& options) {
    Session session(options, true);
    Progress progress(options.clients);
    std::deque<Subscriber> subscribers;
    std::vector<std::unique_ptr<Subscription>> subscriptions;
    for (std::size_t i = 0; i < options.clients; ++i) {
        subscriptions.push_back(session.transport().subscribe(session.place(), serviceName,
                                                              subscribers.emplace_back(progress)));
    }
    Publisher publisher(session);
    reachAll(publisher, progress);
    eventsPerSecond(publisher, progress, options.seconds * warmUpShare);
    const double perSecond = eventsPerSecond(publisher, progress, options.seconds);
    const auto count = static_cast<double>(options.clients);
    return {{"deliveriesPerSecond", perSecond * count},
            {"events", publisher.batches() * batchEvents},
            {"deliveries", static_cast<double>(publisher.batches() * batchEvents) * count}};
}

}  // namespace kavri::bench
