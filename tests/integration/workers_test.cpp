// A responder with several threads: requests received and worked on at the same time, answers
// from any thread and in any order, a lost broker, and the end of the threads.
#define BOOST_TEST_MODULE workers

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <functional>
#include <latch>
#include <map>
#include <memory>

#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

constexpr std::size_t workerCount = 8;

// Receives until the responder refuses, and counts what the receives came to.
class Workers {
  public:
    using Work = std::function<void(const Message& request)>;

    Workers(Responder& responder, const Work& work) : responder_(responder) {
        for (std::size_t i = 0; i < workerCount; ++i) {
            calls_.push_back(std::make_unique<BlockedCall>([this, work] { run(work); }));
        }
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers() { stop(); }

    bool allSleep() const {
        return std::all_of(calls_.begin(), calls_.end(),
                           [](const auto& call) { return call->sleeps(); });
    }
    // As a program ends them: by a callback, which gets what they no longer take.
    void stop() {
        if (!calls_.empty()) {
            BOOST_TEST(responder_.onRequest(Inbox::request, &notTaken_) == good);
            calls_.clear();
        }
    }
    const Inbox& notTaken() const { return notTaken_; }

    std::map<kavri_core_status, int> outcomes() const {
        const std::lock_guard lock(mutex_);
        return outcomes_;
    }
    int outcomes(kavri_core_status status) const {
        const auto counts = outcomes();
        const auto found = counts.find(status);
        return found == counts.end() ? 0 : found->second;
    }

  private:
    void run(const Work& work) {
        kavri_core_status status = good;
        while (status != KAVRI_CORE_STATUS_IPC_FAILED) {
            const Message request = responder_.receive(-1);
            status = request.status;
            {
                const std::lock_guard lock(mutex_);
                ++outcomes_[status];
            }
            if (status == good) {
                work(request);
            }
        }
    }

    Responder& responder_;
    Inbox notTaken_;
    mutable std::mutex mutex_;
    std::map<kavri_core_status, int> outcomes_;
    std::vector<std::unique_ptr<BlockedCall>> calls_;  // last: they use the others
};

struct Pair : WithBroker {
    Pair() : WithBroker({.testService = false}) {}

    void sendAll(const std::vector<std::string>& uuids, const std::string& payload = "input") {
        for (const std::string& uuid : uuids) {
            requireSuccess(initiator.send("work", "do", uuid, payload), "not sent");
        }
    }
    std::vector<std::string> receivedInOrder(std::size_t count) {
        std::vector<std::string> uuids = receiveUuids(initiator, count);
        std::ranges::sort(uuids, {}, [](const std::string& uuid) { return std::stoi(uuid); });
        return uuids;
    }

    Responder responder{address, "work"};
    Initiator initiator{address};
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(workers, Pair)

BOOST_AUTO_TEST_CASE(eachRequestIsReceivedByOneOfThem) {
    const Workers workers(responder, [this](const Message& request) {
        responder.answer(request, request.payload->c_str());
    });
    sendAll(numbers(4000));
    BOOST_TEST((receivedInOrder(4000) == numbers(4000)));
    BOOST_TEST(workers.outcomes(good) == 4000);
}

// Each waits for all others within its request: one alone would never get on.
BOOST_AUTO_TEST_CASE(allOfThemWorkAtTheSameTime) {
    std::latch allWork(workerCount);
    const Workers workers(responder, [&](const Message& request) {
        allWork.arrive_and_wait();
        responder.answer(request, "done");
    });
    BOOST_TEST(workers.allSleep());
    sendAll(numbers(workerCount));
    BOOST_TEST((receivedInOrder(workerCount) == numbers(workerCount)));
}

BOOST_AUTO_TEST_CASE(oneThatIsSlowDelaysNoOther) {
    std::latch mayEnd(1);
    const Workers workers(responder, [&](const Message& request) {
        if (request.uuid == "0") {
            mayEnd.wait();
        }
        responder.answer(request, "done");
    });
    sendAll(numbers(1001));
    const std::vector<std::string> others = receiveUuids(initiator, 1000);
    BOOST_TEST((std::ranges::find(others, "0") == others.end()));
    mayEnd.count_down();
    BOOST_TEST((initiator.receive().uuid == "0"));
}

// Each payload is written by more than one call, beside those of the others.
BOOST_AUTO_TEST_CASE(largeAnswersAndEventsOfSeveralThreadsArriveWhole) {
    Inbox events;
    initiator.onEvent(Inbox::event, &events);
    BOOST_REQUIRE(initiator.subscribe("work") == good);
    const Workers workers(responder, [this](const Message& request) {
        responder.publish("work", "event", std::string(300'000, 'e'));
        responder.answer(request, std::string(500'000, 'r').c_str());
    });
    sendAll(numbers(40));
    for (int i = 0; i < 40; ++i) {
        BOOST_TEST((initiator.receive().payload == std::string(500'000, 'r')));
    }
    BOOST_REQUIRE(events.waitFor(40));
    BOOST_TEST((events.payloads() == std::vector(40, std::string(300'000, 'e'))));
}

BOOST_AUTO_TEST_CASE(aCallbackHandsRequestsToThem) {
    Inbox queue;
    responder.onRequest(Inbox::request, &queue);
    sendAll(numbers(1000));
    BOOST_REQUIRE(queue.waitFor(1000));
    const std::vector<Message> requests = queue.messages();
    std::atomic<std::size_t> next{0};
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < workerCount; ++i) {
        threads.emplace_back([&] {
            // From the last to the first: in another order than they came.
            for (std::size_t taken = next++; taken < requests.size(); taken = next++) {
                responder.answer(requests[requests.size() - 1 - taken], "done");
            }
        });
    }
    BOOST_TEST((receivedInOrder(1000) == numbers(1000)));
}

BOOST_AUTO_TEST_CASE(aCallbackEndsAllReceivesAndGetsWhatIsNotTaken) {
    Workers workers(responder, [](const Message&) {});
    BOOST_TEST(workers.allSleep());
    workers.stop();
    const std::map<kavri_core_status, int> refused = {{KAVRI_CORE_STATUS_IPC_FAILED, workerCount}};
    BOOST_TEST((workers.outcomes() == refused));
    sendAll({"too late"});
    BOOST_TEST(workers.notTaken().waitFor(1));
    responder.end();
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
}

BOOST_AUTO_TEST_CASE(allOfThemServeAgainAfterTheBrokersReturn) {
    std::latch allWork(workerCount);
    const Workers workers(responder, [&](const Message& request) {
        allWork.arrive_and_wait();
        responder.answer(request, "done");
    });
    BOOST_TEST(workers.allSleep());
    broker.restart();
    // Sent once the category is served again; before that it would be refused.
    BOOST_REQUIRE(eventually([this] {
        return initStatus(optionsFor(address), "work") == KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN;
    }));
    Initiator afterwards(address);
    for (const std::string& uuid : numbers(workerCount)) {
        requireSuccess(afterwards.send("work", "do", uuid), "not sent");
    }
    BOOST_TEST(receiveUuids(afterwards, workerCount).size() == workerCount);
    // Each that waited learned of the loss once, and nobody of anything else.
    BOOST_TEST(workers.outcomes(KAVRI_CORE_STATUS_IPC_CONNECTION_LOST) ==
               static_cast<int>(workerCount));
}

BOOST_AUTO_TEST_SUITE_END()
