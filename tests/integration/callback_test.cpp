// Callbacks: where and when they are called, how they are replaced and removed,
// and what may be done from within one.
#define BOOST_TEST_MODULE callback

#include <signal.h>

#include <boost/test/unit_test.hpp>
#include <functional>
#include <semaphore>
#include <set>

#include "support/action.h"
#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

// A call that lasts until the test lets it end.
class HeldCall : public Action {
  public:
    HeldCall() : Action([this] { (void)mayEnd_.try_acquire_for(patience); }) {}
    // That `call` returns when the call of the callback under way has ended, and not before.
    void expectWaitedForBy(const std::function<void()>& call) {
        BOOST_REQUIRE(eventually([this] { return begun() > 0; }));
        int endedAtReturn = -1;
        BlockedCall blocked([&] {
            call();
            endedAtReturn = ended();
        });
        BOOST_TEST(blocked.sleeps());
        mayEnd_.release();
        blocked.join();
        BOOST_TEST(endedAtReturn == 1);
    }

  private:
    std::binary_semaphore mayEnd_{0};
};

// What a callback observes of the thread that it runs on.
struct ThreadReport {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    std::set<int> unblockedSignals;
    int calls = 0;
    int running = 0;
    int overlapping = 0;

    void note() {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        {
            const std::lock_guard lock(mutex);
            overlapping += running++ > 0 ? 1 : 0;
            ++calls;
            threads.insert(std::this_thread::get_id());
            for (int signal = 1; signal <= SIGRTMAX; ++signal) {
                // Two cannot be blocked, and those below SIGRTMIN are the C library's.
                const bool blockable =
                    signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal >= SIGRTMIN);
                if (blockable && sigismember(&blocked, signal) == 0) {
                    unblockedSignals.insert(signal);
                }
            }
        }
        std::this_thread::yield();  // another thread may run now
        const std::lock_guard lock(mutex);
        --running;
    }
    int count() {
        const std::lock_guard lock(mutex);
        return calls;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(delivery, WithBroker)

BOOST_AUTO_TEST_CASE(tenThousandResponsesArriveInOrderEachOnce) {
    Inbox inbox;
    Initiator initiator(address);
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == good);
    constexpr std::size_t count = 10'000;
    BOOST_TEST(initiator.echoAll(numbers(count)) == 0U);
    BOOST_TEST(inbox.waitFor(count));
    BOOST_TEST((inbox.uuids() == numbers(count)));
}

BOOST_AUTO_TEST_CASE(aResponseHasAllFourFields) {
    Inbox inbox;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &inbox);
    initiator.echo("my uuid", "my payload");
    BOOST_REQUIRE(inbox.waitFor(1));
    BOOST_TEST(inbox.messages().front().text() == "test echo my uuid my payload");
}

BOOST_AUTO_TEST_CASE(callsComeOneAtATimeOnOneThreadOfTheLibrarysWithAllSignalsBlocked) {
    ThreadReport report;
    Action action([&] { report.note(); });
    Initiator initiator(address);
    initiator.onResponse(Action::response, &action);
    initiator.onEvent(Action::event, &action);
    initiator.subscribe("test");
    std::set<std::thread::id> callers = {std::this_thread::get_id()};
    {
        std::vector<std::jthread> threads;
        for (int number = 0; number < 3; ++number) {
            threads.emplace_back([&] {
                for (const std::string& uuid : numbers(200)) {
                    initiator.echo(uuid);
                    initiator.send("test", "event", uuid);
                }
            });
            callers.insert(threads.back().get_id());
        }
    }
    BOOST_TEST(eventually([&] { return report.count() == 1200; }));
    BOOST_TEST(report.overlapping == 0);
    BOOST_REQUIRE(report.threads.size() == 1U);
    BOOST_TEST(!callers.contains(*report.threads.begin()));
    BOOST_TEST(report.unblockedSignals.empty());
}

BOOST_AUTO_TEST_CASE(installingACallbackLeavesTheCallersSignalsAlone) {
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    Inbox inbox;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &inbox);
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        BOOST_TEST(sigismember(&before, signal) == sigismember(&after, signal));
    }
}

BOOST_AUTO_TEST_CASE(whatWasWaitingGoesToTheCallbackFirst) {
    Inbox inbox;
    Initiator initiator(address);
    initiator.echoAll(numbers(4));
    BOOST_TEST((initiator.receive().uuid == "0"));
    initiator.onResponse(Inbox::response, &inbox);
    initiator.echoAll(numbers(4, 4));
    BOOST_TEST(inbox.waitFor(7));
    BOOST_TEST((inbox.uuids() == numbers(7, 1)));
}

BOOST_AUTO_TEST_CASE(aReplacementGetsWhatComesFromThenOn) {
    Inbox first;
    Inbox second;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &first);
    initiator.echo("0");
    BOOST_TEST(first.waitFor(1));
    BOOST_TEST(initiator.onResponse(Inbox::response, &second) == good);
    initiator.echo("1");
    BOOST_TEST(second.waitFor(1));
    BOOST_TEST((first.uuids() == numbers(1)));
    BOOST_TEST((second.uuids() == numbers(1, 1)));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(removal, WithBroker)

BOOST_AUTO_TEST_CASE(removingWhatIsNotInstalledIsNoFailure) {
    Initiator initiator(address);
    BOOST_TEST(initiator.onResponse(nullptr, nullptr) == good);
    BOOST_TEST(initiator.onEvent(nullptr, nullptr) == good);
}

BOOST_AUTO_TEST_CASE(responsesAfterRemovalWaitForAReceive) {
    Inbox inbox;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &inbox);
    initiator.echo("to the callback");
    BOOST_TEST(inbox.waitFor(1));
    broker.freeze();
    initiator.echo("sent before removal");
    BOOST_TEST(initiator.onResponse(nullptr, nullptr) == good);
    broker.thaw();
    initiator.echo("sent after removal");
    BOOST_TEST((initiator.receive().uuid == "sent before removal"));
    BOOST_TEST((initiator.receive().uuid == "sent after removal"));
    BOOST_TEST(inbox.count() == 1U);
}

BOOST_AUTO_TEST_CASE(removalWaitsForTheCallUnderWay) {
    HeldCall call;
    Initiator initiator(address);
    initiator.onResponse(Action::response, &call);
    initiator.echo("0");
    initiator.echo("1");
    call.expectWaitedForBy([&] { initiator.onResponse(nullptr, nullptr); });
    BOOST_TEST((initiator.receive().uuid == "1"));
    BOOST_TEST(call.begun() == 1);
}

BOOST_AUTO_TEST_CASE(eventCallbackRemovalWaitsForTheCallUnderWay) {
    HeldCall call;
    Initiator initiator(address);
    initiator.onEvent(Action::event, &call);
    initiator.subscribe("test");
    initiator.send("test", "event");
    initiator.send("test", "event");
    call.expectWaitedForBy([&] { initiator.onEvent(nullptr, nullptr); });
    BOOST_TEST(initiator.echoes());
    BOOST_TEST(call.begun() == 1);
}

BOOST_AUTO_TEST_CASE(replacementWaitsForTheCallUnderWay) {
    HeldCall call;
    Inbox next;
    Initiator initiator(address);
    initiator.onResponse(Action::response, &call);
    initiator.echo("0");
    initiator.echo("1");
    call.expectWaitedForBy([&] { initiator.onResponse(Inbox::response, &next); });
    BOOST_TEST(next.waitFor(1));
    BOOST_TEST((next.uuids() == numbers(1, 1)));
    BOOST_TEST(call.begun() == 1);
}

BOOST_AUTO_TEST_CASE(theEndWaitsForTheCallUnderWay) {
    HeldCall call;
    Initiator initiator(address);
    initiator.onResponse(Action::response, &call);
    initiator.echo("0");
    call.expectWaitedForBy([&] { initiator.end(); });
}

BOOST_AUTO_TEST_CASE(noCallComesAfterTheEndThoughMessagesArrive) {
    // As many turns as it takes to meet the end at different moments.
    for (int turn = 0; turn < 50; ++turn) {
        Inbox responses;
        Inbox events;
        Initiator initiator(address);
        initiator.onResponse(Inbox::response, &responses);
        initiator.onEvent(Inbox::event, &events);
        initiator.subscribe("test");
        for (const std::string& uuid : numbers(200)) {
            initiator.echo(uuid);
            initiator.send("test", "event", uuid);
        }
        BOOST_TEST(responses.waitFor(1));
        BOOST_TEST(kavri_core_ipc_deinit(initiator.release()) == good);
        const std::size_t responsesAtEnd = responses.count();
        const std::size_t eventsAtEnd = events.count();
        Initiator(address).echo("0");  // something for the broker to do meanwhile
        BOOST_TEST(responses.count() == responsesAtEnd);
        BOOST_TEST(events.count() == eventsAtEnd);
    }
}

BOOST_AUTO_TEST_CASE(callbacksComeAndGoWhileResponsesArrive) {
    Inbox inbox;
    Initiator initiator(address);
    constexpr std::size_t count = 2000;
    std::jthread sender([&] { initiator.echoAll(numbers(count)); });
    std::size_t received = 0;
    while (received + inbox.count() < count) {
        initiator.onResponse(Inbox::response, &inbox);
        BOOST_REQUIRE(eventually([&, seen = inbox.count()] {
            return inbox.count() > seen || received + inbox.count() == count;
        }));
        initiator.onResponse(nullptr, nullptr);
        while (initiator.receive(0).status == good) {
            ++received;
        }
    }
    BOOST_TEST(received + inbox.count() == count);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(fromWithin, WithBroker)

BOOST_AUTO_TEST_CASE(aCallbackRemovesItself) {
    Initiator initiator(address);
    kavri_core_status removed = KAVRI_CORE_STATUS_IPC_FAILED;
    Action action([&] { removed = initiator.onResponse(nullptr, nullptr); });
    broker.freeze();  // so that both answers come together
    initiator.onResponse(Action::response, &action);
    initiator.echo("0");
    initiator.echo("1");
    broker.thaw();
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(removed == good);
    BOOST_TEST((initiator.receive().uuid == "1"));
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_CASE(anEventCallbackRemovesItself) {
    Initiator initiator(address);
    Action action([&] { initiator.onEvent(nullptr, nullptr); });
    initiator.onEvent(Action::event, &action);
    initiator.subscribe("test");
    for (int i = 0; i < 10; ++i) {
        initiator.send("test", "event");
    }
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(initiator.echoes());
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_CASE(aCallbackInstallsAnother) {
    Inbox next;
    Initiator initiator(address);
    Action action([&] { initiator.onResponse(Inbox::response, &next); });
    initiator.onResponse(Action::response, &action);
    initiator.echoAll(numbers(3));
    BOOST_TEST(next.waitFor(2));
    BOOST_TEST((next.uuids() == numbers(2, 1)));
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_CASE(aCallbackEndsItsInitiator) {
    Initiator initiator(address);
    kavri_core_ipc_initiator* handle = initiator.release();
    std::atomic<int> status{-1};
    Action action([&] { status = kavri_core_ipc_deinit(handle); });
    kavri_core_ipc_initiator_response_receive_callback(handle, Action::response, &action);
    broker.freeze();
    for (int i = 0; i < 10; ++i) {
        kavri_core_ipc_initiator_command_send(handle, "test", "echo", "0", "x");
    }
    const std::size_t connected = broker.descriptors();
    broker.thaw();
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(status == good);
    // The thread ends by itself and takes the connection with it.
    BOOST_TEST(eventually([&] { return broker.descriptors() < connected; }));
    BOOST_TEST(haveFurtherThreads(0));
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_CASE(aResponseCallbackSendsSubscribesAndIsRefusedToReceive) {
    Inbox events;
    Initiator initiator(address);
    std::vector<kavri_core_status> statuses;
    Action action([&] {
        statuses = {initiator.onEvent(Inbox::event, &events), initiator.subscribe("test"),
                    initiator.send("test", "event", "0", "from within"),
                    initiator.receive(-1).status};
    });
    initiator.onResponse(Action::response, &action);
    initiator.echo("0");
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(statuses == (std::vector{good, good, good, KAVRI_CORE_STATUS_IPC_FAILED}),
               boost::test_tools::per_element());
    BOOST_TEST(events.waitFor(1));
    BOOST_TEST((events.payloads() == std::vector<std::string>{"from within"}));
}

BOOST_AUTO_TEST_CASE(anEventCallbackAsksAndReceives) {
    Initiator initiator(address);
    Text received;
    Action action([&] {
        initiator.echo("asked from within");
        received = initiator.receive(-1).uuid;
    });
    initiator.onEvent(Action::event, &action);
    initiator.subscribe("test");
    initiator.send("test", "event");
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST((received == "asked from within"));
}

BOOST_AUTO_TEST_CASE(anEventCallbackUnsubscribes) {
    Initiator initiator(address);
    kavri_core_status status = KAVRI_CORE_STATUS_IPC_FAILED;
    Action action([&] { status = initiator.unsubscribe("test"); });
    initiator.onEvent(Action::event, &action);
    initiator.subscribe("test");
    for (int i = 0; i < 10; ++i) {
        initiator.send("test", "event");
    }
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(status == good);
    BOOST_TEST(initiator.echoes());
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_SUITE_END()
