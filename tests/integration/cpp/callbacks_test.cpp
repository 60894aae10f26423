// Callbacks of the C++ interface: how long a function lives, what it may do to the object
// that calls it, and what becomes of its exceptions.
#define BOOST_TEST_MODULE cppCallbacks

#include <sys/wait.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <memory>
#include <semaphore>

#include "integration/cpp/cpp_pair.h"

using namespace kavri::tests;
using namespace std::chrono_literals;

namespace {

// What callbacks pass on to the test, in order.
class Texts {
  public:
    void add(kavri::TextView text) {
        const std::lock_guard lock(mutex_);
        texts_.push_back(text.str());
    }
    std::vector<std::string> all() const {
        const std::lock_guard lock(mutex_);
        return texts_;
    }
    bool waitFor(std::size_t count) const {
        return eventually([&] { return all().size() >= count; });
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

// Outlives the objects whose callbacks use it.
struct WithTexts {
    Texts texts;
};

struct Fixture : WithTexts, CppPair {
    void echo(const std::string& uuid) { initiator.send("test", "echo", uuid, uuid); }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(functions, Fixture)

BOOST_AUTO_TEST_CASE(getResponses) {
    initiator.onResponse([this](const kavri::Response& response) { texts.add(response.uuid()); });
    for (const std::string& uuid : numbers(1000)) {
        echo(uuid);
    }
    BOOST_TEST(texts.waitFor(1000));
    BOOST_TEST((texts.all() == numbers(1000)));
}

BOOST_AUTO_TEST_CASE(getRequestsAndAnswerThem) {
    responder.onRequest(
        [this](kavri::Request request) { responder.answer(request, request.payload()); });
    BOOST_TEST((initiator.request("work", "do", "input").payload() == "input"));
}

BOOST_AUTO_TEST_CASE(getEventsOfWhatIsSubscribed) {
    initiator.onEvent([this](const kavri::Event& event) {
        texts.add(event.category().str() + " " + event.identifier().str() + " " +
                  event.payload().str());
    });
    initiator.subscribe("work");
    responder.publish("event", "first");
    responder.publish("event", "second");
    BOOST_TEST(texts.waitFor(2));
    initiator.unsubscribe("work");
    responder.publish("event", "third");
    BOOST_TEST((initiator.request("test", "echo", "").payload() == ""));
    const std::vector<std::string> expected{"work event first", "work event second"};
    BOOST_TEST((texts.all() == expected));
}

BOOST_AUTO_TEST_CASE(keepTheirMessages) {
    std::mutex mutex;
    std::vector<kavri::Response> kept;
    initiator.onResponse([&](kavri::Response response) {
        const std::lock_guard lock(mutex);
        kept.push_back(std::move(response));
    });
    echo("0");
    echo("1");
    BOOST_TEST(eventually([&] {
        const std::lock_guard lock(mutex);
        return kept.size() == 2;
    }));
    initiator.onResponse({});
    BOOST_TEST((kept[0].payload() == "0"));
    BOOST_TEST((kept[1].payload() == "1"));
}

// With what they captured: on return of the call.
BOOST_AUTO_TEST_CASE(areDestroyedWhenTheyAreRemovedOrTheirObjectEnds) {
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch(captured);
    initiator.onResponse([captured](const kavri::Response&) {});
    responder.onRequest([captured = std::move(captured)](const kavri::Request&) {});
    initiator.onResponse({});
    BOOST_TEST(!watch.expired());
    responder.close();
    BOOST_TEST(watch.expired());
}

BOOST_AUTO_TEST_CASE(areDestroyedOnceTheCallUnderWayHasReturned) {
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch(captured);
    std::binary_semaphore begun(0);
    std::binary_semaphore mayEnd(0);
    initiator.onResponse([&, captured = std::move(captured)](const kavri::Response&) {
        begun.release();
        (void)mayEnd.try_acquire_for(patience);
    });
    echo("0");
    BOOST_REQUIRE(begun.try_acquire_for(patience));
    BlockedCall removal([this] { initiator.onResponse({}); });
    BOOST_TEST(removal.sleeps());
    BOOST_TEST(!watch.expired());
    mayEnd.release();
    removal.join();
    BOOST_TEST(watch.expired());
}

BOOST_AUTO_TEST_CASE(useTheirObjectWhileItWaitsForThemToEnd) {
    auto own = std::make_unique<kavri::Initiator>(options());
    kavri::Initiator& used = *own;
    std::binary_semaphore begun(0);
    std::binary_semaphore mayEnd(0);
    std::atomic<int> sent{-1};
    used.onResponse([&](const kavri::Response&) {
        begun.release();
        (void)mayEnd.try_acquire_for(patience);
        sent = used.trySend("test", "echo", "1", "");
    });
    used.send("test", "echo", "0", "");
    BOOST_REQUIRE(begun.try_acquire_for(patience));
    BlockedCall end([&] { own.reset(); });
    BOOST_TEST(end.sleeps());
    mayEnd.release();
    end.join();
    BOOST_TEST(sent == good);
}

BOOST_AUTO_TEST_CASE(surviveTheMoveOfTheirObject) {
    initiator.onResponse([this](const kavri::Response& response) { texts.add(response.uuid()); });
    kavri::Initiator moved(std::move(initiator));
    moved.send("test", "echo", "after the move", "");
    BOOST_TEST(texts.waitFor(1));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(fromWithin, Fixture)

BOOST_AUTO_TEST_CASE(aFunctionRemovesItselfAndIsDestroyedAfterwards) {
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch(captured);
    std::atomic<bool> wasThereAfterRemoval{false};
    initiator.onResponse([&, captured = std::move(captured)](const kavri::Response&) {
        initiator.onResponse({});
        wasThereAfterRemoval = captured.use_count() == 1;
    });
    echo("0");
    BOOST_TEST(eventually([&] { return watch.expired(); }));
    BOOST_TEST(wasThereAfterRemoval);
    echo("1");
    BOOST_TEST((initiator.receive()->uuid() == "1"));
}

BOOST_AUTO_TEST_CASE(aFunctionReplacesItself) {
    initiator.onResponse([this](const kavri::Response&) {
        initiator.onResponse(
            [this](const kavri::Response& response) { texts.add(response.uuid()); });
    });
    echo("for the first");
    echo("for the second");
    BOOST_TEST(texts.waitFor(1));
    BOOST_TEST((texts.all() == std::vector<std::string>{"for the second"}));
}

BOOST_AUTO_TEST_CASE(aFunctionDestroysItsInitiator) {
    auto own = std::make_unique<kavri::Initiator>(options());
    std::atomic<bool> ended{false};
    own->onEvent([](const kavri::Event&) {});
    own->onResponse([&](const kavri::Response&) {
        own.reset();
        ended = true;
    });
    own->send("test", "echo", "1", "");
    BOOST_TEST(eventually([&] { return ended.load(); }));
}

BOOST_AUTO_TEST_CASE(aFunctionThatOwnsItsInitiatorEndsBoth) {
    auto own = std::make_shared<kavri::Initiator>(options());
    const std::weak_ptr<kavri::Initiator> watch(own);
    kavri::Initiator& initiatorThatIsLeft = *own;
    initiatorThatIsLeft.onResponse(
        [own = std::move(own)](const kavri::Response&) { own->onResponse({}); });
    BOOST_TEST(!watch.expired());
    initiatorThatIsLeft.send("test", "echo", "1", "");
    BOOST_TEST(eventually([&] { return watch.expired(); }));
}

BOOST_AUTO_TEST_CASE(aFunctionDestroysItsResponder) {
    auto own = std::make_unique<kavri::Responder>("own work", options());
    std::atomic<bool> ended{false};
    own->onRequest([&](const kavri::Request& request) {
        own->answer(request, "the last");
        own.reset();
        ended = true;
    });
    BOOST_TEST((initiator.request("own work", "do", "").payload() == "the last"));
    BOOST_TEST(eventually([&] { return ended.load(); }));
}

// The main thread removes what removes itself, at about the same time.
BOOST_AUTO_TEST_CASE(aFunctionRemovesItselfWhileItIsRemoved) {
    for (int round = 0; round < 300; ++round) {
        auto captured = std::make_shared<int>(0);
        const std::weak_ptr<int> watch(captured);
        std::binary_semaphore called(0);
        initiator.onResponse([&, captured = std::move(captured)](const kavri::Response&) {
            called.release();
            initiator.onResponse({});
        });
        echo("0");
        BOOST_REQUIRE(called.try_acquire_for(patience));
        initiator.onResponse({});
        BOOST_REQUIRE(eventually([&] { return watch.expired(); }));
    }
    BOOST_TEST((initiator.request("test", "echo", "by receive").payload() == "by receive"));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(severalThreads, Fixture)

BOOST_AUTO_TEST_CASE(replaceAFunctionAndNoMessageIsLost) {
    constexpr int count = 2000;
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch(captured);
    std::atomic<int> received{0};
    const auto install = [&] {
        initiator.onResponse([&received, captured](const kavri::Response&) { ++received; });
    };
    install();
    {
        std::atomic<bool> isOver{false};
        std::vector<std::jthread> threads(3);
        for (std::jthread& each : threads) {
            each = std::jthread([&] {
                while (!isOver) {
                    install();
                }
            });
        }
        for (int i = 0; i < count; ++i) {
            echo("0");
        }
        BOOST_TEST(eventually([&] { return received == count; }));
        isOver = true;
    }
    initiator.onResponse({});
    captured.reset();
    // All but the one in `install`, which is this test's own, are gone.
    BOOST_TEST(watch.expired());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(connections, Fixture)

BOOST_AUTO_TEST_CASE(aChangeOfTheConnectionIsReported) {
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch(captured);
    std::mutex mutex;
    std::vector<kavri::ConnectionEvent> events;
    std::chrono::milliseconds disconnected{0};
    kavri::Options chosen = options();
    chosen.connectionCallback = [&, captured](const kavri::ConnectionChange& change) {
        const std::lock_guard lock(mutex);
        events.push_back(change.event);
        texts.add(change.reason);
        disconnected += change.disconnected;
    };
    const auto has = [&](std::vector<kavri::ConnectionEvent> expected) {
        return eventually([&] {
            const std::lock_guard lock(mutex);
            return events == expected;
        });
    };
    {
        const kavri::Initiator watching(chosen);
        BOOST_TEST(has({KAVRI_CORE_IPC_CONNECTION_MADE}));
        broker.restart();
        BOOST_TEST(has({KAVRI_CORE_IPC_CONNECTION_MADE, KAVRI_CORE_IPC_CONNECTION_BROKEN,
                        KAVRI_CORE_IPC_CONNECTION_RESTORED}));
    }
    BOOST_TEST(!texts.all().at(1).empty());
    BOOST_TEST(disconnected.count() > 0);
    chosen.connectionCallback = {};
    captured.reset();
    BOOST_TEST(watch.expired());
}

BOOST_AUTO_TEST_CASE(aRequestThatGetsNoResponseIsReported) {
    kavri::Options chosen = options();
    chosen.outcomeCallback = [this](const kavri::Outcome& outcome) {
        texts.add(outcome.uuid.str() + ": " + kavri_core_status_text(outcome.status));
    };
    kavri::Initiator own(chosen);
    own.send("nobody's", "do", "7", "");
    BOOST_REQUIRE(texts.waitFor(1));
    BOOST_TEST(texts.all().front() == "7: no responder");
    BOOST_TEST(thrownBy([&own] { own.request("test", "echo", ""); }) ==
               KAVRI_CORE_STATUS_INVALID_ARGUMENT);
}

BOOST_AUTO_TEST_CASE(aConnectionCallbackDestroysItsObject) {
    std::mutex mutex;  // the callback may be called before there is an object
    std::unique_ptr<kavri::Responder> own;
    std::atomic<bool> ended{false};
    kavri::Options chosen = options();
    chosen.connectionCallback = [&](const kavri::ConnectionChange& change) {
        if (change.event == KAVRI_CORE_IPC_CONNECTION_BROKEN) {
            {
                const std::lock_guard lock(mutex);
                own.reset();
            }
            ended = true;
        }
    };
    {
        const std::lock_guard lock(mutex);
        own = std::make_unique<kavri::Responder>("own work", chosen);
    }
    broker.kill();
    BOOST_TEST(eventually([&] { return ended.load(); }));
}

BOOST_AUTO_TEST_SUITE_END()

// In a child, which has no threads of the test's.
BOOST_FIXTURE_TEST_CASE(anExceptionThatLeavesACallbackEndsTheProgram, WithBroker) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::set_terminate([] { ::_exit(42); });
        kavri::Options options;
        options.brokerAddress = address;
        kavri::Initiator initiator(options);
        initiator.onResponse(
            [](const kavri::Response&) { throw std::runtime_error("not caught by the callback"); });
        initiator.send("test", "echo", "1", "");
        std::this_thread::sleep_for(patience);
        ::_exit(1);
    }
    int status = 0;
    BOOST_REQUIRE(::waitpid(child, &status, 0) == child);
    BOOST_TEST(WIFEXITED(status));
    BOOST_TEST(WEXITSTATUS(status) == 42);
}
