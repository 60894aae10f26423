// Responses by callback: one request after the other, and a window of requests
// kept under way, refilled from within the callback or by the client's own thread.
#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include "figures.h"
#include "session.h"
#include "workloads/arrivals.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

constexpr double warmUpShare = 0.2;
constexpr std::chrono::milliseconds lookPause{1};

// The sending half of one client.
class Requests {
  public:
    Requests(const Session& session, MessageSink& responses)
        : payload_(session.options().payloadBytes),
          client_(session.transport().connectCallback(session.place(), serviceName, responses)) {}

    void send() { client_->send(payload_.with({Kind::echo, sent_++, 0, 0})); }
    std::uint64_t sent() const { return sent_; }

  private:
    Payload payload_;
    std::uint64_t sent_ = 0;
    const std::unique_ptr<CallbackClient> client_;
};

// One after the other. The clock is read at the entry of the callback; how the
// sending thread learns of the response comes after that.
class RoundTripsByCallback : public MessageSink {
  public:
    explicit RoundTripsByCallback(const Session& session)
        : check_(Kind::echo, session.options().payloadBytes), requests_(session, *this) {}

    void deliver(std::string_view payload) override {
        enteredAt_ = Clock::now();
        check_.next(payload);
        arrivals_.add();
    }

    Latencies runFor(double seconds) {
        Latencies latencies;
        const Clock::time_point end = after(seconds);
        for (Clock::time_point begin = Clock::now(); begin < end; begin = Clock::now()) {
            requests_.send();
            arrivals_.takeAll();
            latencies.add(begin, enteredAt_);
        }
        return latencies;
    }

  private:
    PayloadCheck check_;
    Arrivals arrivals_;
    Clock::time_point enteredAt_;
    Requests requests_;  // last: callbacks use the others until it is gone
};

struct Rate {
    std::uint64_t messages = 0;
    double seconds = 0;
};

// Callbacks keep the window full. The first of them fills it: all requests but
// the first are sent by the delivering thread.
class RefillByCallback : public MessageSink {
  public:
    explicit RefillByCallback(const Session& session)
        : window_(session.options().window),
          check_(Kind::echo, session.options().payloadBytes),
          requests_(session, *this) {
        requests_.send();
        firstSent_.count_down();
    }

    void deliver(std::string_view payload) override {
        firstSent_.wait();  // that send may still be returning
        check_.next(payload);
        received_ = check_.count();
        if (!isDraining_) {
            while (requests_.sent() - check_.count() < window_) {
                requests_.send();
            }
        } else if (requests_.sent() == check_.count()) {
            lastResponse_.add();
        }
    }

    // Ends with a response at the earliest, as by receive; drain() fails where
    // none comes.
    Rate runFor(double seconds) const {
        const Clock::time_point begin = Clock::now();
        const Clock::time_point latestEnd = after(seconds + patienceMs / 1000.0);
        const std::uint64_t already = received_;
        std::this_thread::sleep_until(after(seconds));
        while (received_ == already && Clock::now() < latestEnd) {
            std::this_thread::sleep_for(lookPause);
        }
        return {received_ - already, secondsBetween(begin, Clock::now())};
    }

    std::uint64_t drain() {
        isDraining_ = true;
        lastResponse_.takeAll();
        return received_;
    }

  private:
    const std::uint64_t window_;
    PayloadCheck check_;
    std::latch firstSent_{1};
    std::atomic<std::uint64_t> received_ = 0;
    std::atomic<bool> isDraining_ = false;
    Arrivals lastResponse_;
    Requests requests_;  // last: callbacks use the others until it is gone
};

// Callbacks only count: the client's own thread sleeps until responses have
// come, and sends as many requests.
class RefillByOwnThread : public MessageSink {
  public:
    explicit RefillByOwnThread(const Session& session)
        : check_(Kind::echo, session.options().payloadBytes), requests_(session, *this) {
        send(session.options().window);
    }

    void deliver(std::string_view payload) override {
        check_.next(payload);
        arrivals_.add();
    }

    Rate runFor(double seconds) {
        const Clock::time_point begin = Clock::now();
        const Clock::time_point end = after(seconds);
        const std::uint64_t already = received_;
        Clock::time_point now = begin;
        while (now < end) {
            const std::size_t count = arrivals_.takeAll();
            received_ += count;
            send(count);
            now = Clock::now();
        }
        return {received_ - already, secondsBetween(begin, now)};
    }

    std::uint64_t drain() {
        while (received_ < requests_.sent()) {
            received_ += arrivals_.takeAll();
        }
        return received_;
    }

  private:
    void send(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            requests_.send();
        }
    }

    PayloadCheck check_;
    Arrivals arrivals_;
    std::uint64_t received_ = 0;
    Requests requests_;  // last: callbacks use the others until it is gone
};

template <typename Refill>
nlohmann::json inFlight(const Options& options) {
    const Session session(options, true);
    Refill refill(session);
    refill.runFor(options.seconds * warmUpShare);
    const Rate rate = refill.runFor(options.seconds);
    const double perSecond = static_cast<double>(rate.messages) / rate.seconds;
    return {{"messagesPerSecond", perSecond},
            {"bytesPerSecond", perSecond * static_cast<double>(options.payloadBytes)},
            {"messages", refill.drain()}};
}

}  // namespace

nlohmann::json measureRoundTripByCallback(const Options& options) {
    const Session session(options, false);
    RoundTripsByCallback roundTrips(session);
    roundTrips.runFor(options.seconds * warmUpShare);
    return roundTrips.runFor(options.seconds).figures();
}

nlohmann::json measureInFlightByCallback(const Options& options) {
    return options.refillsByOwnThread ? inFlight<RefillByOwnThread>(options)
                                      : inFlight<RefillByCallback>(options);
}

}  // namespace kavri::bench
