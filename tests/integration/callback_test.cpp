// Callbacks: where and when they are called, how they are replaced and removed,
// and what may be done from within one.
#define BOOST_TEST_MODULE callback

#include <signal.h>

#include <algorithm>
#include <array>
#include <boost/test/unit_test.hpp>
#include <functional>
#include <semaphore>
#include <set>

#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

// Does whatever a test wants within the first call, and counts all calls.
class Action {
  public:
    explicit Action(std::function<void()> work) : work_(std::move(work)) {}

    static void response(char** category, char** identifier, char** uuid, char** payload,
                         void* action) {
        const Message message(KAVRI_CORE_STATUS_NO_ERROR,
                              {*category, *identifier, *uuid, *payload});
        static_cast<Action*>(action)->run();
    }
    static void event(char** category, char** identifier, char** payload, void* action) {
        response(category, identifier, &none(), payload, action);
    }

    bool waitForEnd() const {
        return eventually([this] { return ended_ > 0; });
    }
    int begun() const { return begun_; }
    int ended() const { return ended_; }

  private:
    static char*& none() {
        static thread_local char* nothing = nullptr;
        return nothing;
    }
    void run() {
        if (begun_++ == 0) {
            work_();
        }
        ++ended_;
    }

    std::function<void()> work_;
    std::atomic<int> begun_{0};
    std::atomic<int> ended_{0};
};

// A call that lasts until the test lets it end.
class HeldCall : public Action {
  public:
    HeldCall() : Action([this] { (void)mayEnd_.try_acquire_for(patience); }) {}
    bool waitForBegin() const {
        return eventually([this] { return begun() > 0; });
    }
    void letEnd() { mayEnd_.release(); }

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
    static void response(char** category, char** identifier, char** uuid, char** payload,
                         void* report) {
        const Message message(KAVRI_CORE_STATUS_NO_ERROR,
                              {*category, *identifier, *uuid, *payload});
        static_cast<ThreadReport*>(report)->note();
    }
    static void event(char** category, char** identifier, char** payload, void* report) {
        char* none = nullptr;
        response(category, identifier, &none, payload, report);
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(delivery, WithBroker)

BOOST_AUTO_TEST_CASE(tenThousandResponsesArriveInOrderEachOnce) {
    Inbox inbox;
    Initiator initiator(address);
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == KAVRI_CORE_STATUS_NO_ERROR);
    constexpr std::size_t count = 10'000;
    std::size_t refused = 0;
    for (const std::string& uuid : numbers(count)) {
        refused +=
            initiator.send("test", "static_response", uuid) == KAVRI_CORE_STATUS_NO_ERROR ? 0 : 1;
    }
    BOOST_TEST(refused == 0U);
    BOOST_TEST(inbox.waitFor(count));
    BOOST_TEST((inbox.uuids() == numbers(count)));
}

BOOST_AUTO_TEST_CASE(aResponseHasAllFourFields) {
    Inbox inbox;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &inbox);
    initiator.echo("my uuid", "my payload");
    BOOST_REQUIRE(inbox.waitFor(1));
    const Message response = inbox.messages().front();
    BOOST_TEST((response.category == "test"));
    BOOST_TEST((response.identifier == "echo"));
    BOOST_TEST((response.uuid == "my uuid"));
    BOOST_TEST((response.payload == "my payload"));
}

BOOST_AUTO_TEST_CASE(callsComeOneAtATimeOnOneThreadOfTheLibrarysWithAllSignalsBlocked) {
    ThreadReport report;
    Initiator initiator(address);
    initiator.onResponse(ThreadReport::response, &report);
    initiator.onEvent(ThreadReport::event, &report);
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
    for (const std::string& uuid : numbers(4)) {
        initiator.echo(uuid);
    }
    BOOST_TEST((initiator.receive().uuid == "0"));
    initiator.onResponse(Inbox::response, &inbox);
    for (const std::string& uuid : numbers(4, 4)) {
        initiator.echo(uuid);
    }
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
    BOOST_TEST(initiator.onResponse(Inbox::response, &second) == KAVRI_CORE_STATUS_NO_ERROR);
    initiator.echo("1");
    BOOST_TEST(second.waitFor(1));
    BOOST_TEST((first.uuids() == numbers(1)));
    BOOST_TEST((second.uuids() == numbers(1, 1)));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(removal, WithBroker)

BOOST_AUTO_TEST_CASE(removingWhatIsNotInstalledIsNoFailure) {
    Initiator initiator(address);
    BOOST_TEST(initiator.onResponse(nullptr, nullptr) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(initiator.onEvent(nullptr, nullptr) == KAVRI_CORE_STATUS_NO_ERROR);
}

BOOST_AUTO_TEST_CASE(responsesAfterRemovalWaitForAReceive) {
    Inbox inbox;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &inbox);
    initiator.echo("to the callback");
    BOOST_TEST(inbox.waitFor(1));
    broker.freeze();
    initiator.echo("sent before removal");
    BOOST_TEST(initiator.onResponse(nullptr, nullptr) == KAVRI_CORE_STATUS_NO_ERROR);
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
    BOOST_REQUIRE(call.waitForBegin());
    int endedAtReturn = -1;
    BlockedCall removal([&] {
        initiator.onResponse(nullptr, nullptr);
        endedAtReturn = call.ended();
    });
    BOOST_TEST(removal.sleeps());
    call.letEnd();
    removal.join();
    BOOST_TEST(endedAtReturn == 1);
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
    BOOST_REQUIRE(call.waitForBegin());
    int endedAtReturn = -1;
    BlockedCall removal([&] {
        initiator.onEvent(nullptr, nullptr);
        endedAtReturn = call.ended();
    });
    BOOST_TEST(removal.sleeps());
    call.letEnd();
    removal.join();
    BOOST_TEST(endedAtReturn == 1);
    initiator.echo("0");
    BOOST_TEST((initiator.receive().uuid == "0"));
    BOOST_TEST(call.begun() == 1);
}

BOOST_AUTO_TEST_CASE(replacementWaitsForTheCallUnderWay) {
    HeldCall call;
    Inbox next;
    Initiator initiator(address);
    initiator.onResponse(Action::response, &call);
    initiator.echo("0");
    initiator.echo("1");
    BOOST_REQUIRE(call.waitForBegin());
    int endedAtReturn = -1;
    BlockedCall replacement([&] {
        initiator.onResponse(Inbox::response, &next);
        endedAtReturn = call.ended();
    });
    BOOST_TEST(replacement.sleeps());
    call.letEnd();
    replacement.join();
    BOOST_TEST(endedAtReturn == 1);
    BOOST_TEST(next.waitFor(1));
    BOOST_TEST((next.uuids() == numbers(1, 1)));
    BOOST_TEST(call.begun() == 1);
}

BOOST_AUTO_TEST_CASE(theEndWaitsForTheCallUnderWay) {
    HeldCall call;
    Initiator initiator(address);
    initiator.onResponse(Action::response, &call);
    initiator.echo("0");
    BOOST_REQUIRE(call.waitForBegin());
    int endedAtReturn = -1;
    BlockedCall end([&] {
        initiator.end();
        endedAtReturn = call.ended();
    });
    BOOST_TEST(end.sleeps());
    call.letEnd();
    end.join();
    BOOST_TEST(endedAtReturn == 1);
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
        BOOST_TEST(kavri_core_ipc_deinit(initiator.release()) == KAVRI_CORE_STATUS_NO_ERROR);
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
    std::jthread sender([&] {
        for (const std::string& uuid : numbers(count)) {
            initiator.echo(uuid);
        }
    });
    std::size_t received = 0;
    while (received + inbox.count() < count) {
        initiator.onResponse(Inbox::response, &inbox);
        BOOST_REQUIRE(eventually([&, seen = inbox.count()] {
            return inbox.count() > seen || received + inbox.count() == count;
        }));
        initiator.onResponse(nullptr, nullptr);
        while (initiator.receive(0).status == KAVRI_CORE_STATUS_NO_ERROR) {
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
    BOOST_TEST(removed == KAVRI_CORE_STATUS_NO_ERROR);
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
    initiator.echo("0");
    BOOST_TEST((initiator.receive().uuid == "0"));
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_CASE(aCallbackInstallsAnother) {
    Inbox next;
    Initiator initiator(address);
    Action action([&] { initiator.onResponse(Inbox::response, &next); });
    initiator.onResponse(Action::response, &action);
    for (const std::string& uuid : numbers(3)) {
        initiator.echo(uuid);
    }
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
    BOOST_TEST(status == KAVRI_CORE_STATUS_NO_ERROR);
    // The thread ends by itself and takes the connection with it.
    BOOST_TEST(eventually([&] { return broker.descriptors() < connected; }));
    BOOST_TEST(haveFurtherThreads(0));
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_CASE(aResponseCallbackSendsSubscribesAndIsRefusedToReceive) {
    Inbox events;
    Initiator initiator(address);
    std::array<kavri_core_status, 4> statuses{};
    Action action([&] {
        statuses = {initiator.onEvent(Inbox::event, &events), initiator.subscribe("test"),
                    initiator.send("test", "event", "0", "from within"),
                    initiator.receive(-1).status};
    });
    initiator.onResponse(Action::response, &action);
    initiator.echo("0");
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(statuses[0] == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(statuses[1] == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(statuses[2] == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(statuses[3] == KAVRI_CORE_STATUS_IPC_FAILED);
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
    BOOST_TEST(status == KAVRI_CORE_STATUS_NO_ERROR);
    initiator.echo("0");
    BOOST_TEST((initiator.receive().uuid == "0"));
    BOOST_TEST(action.begun() == 1);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(gathering, WithBroker)

// A responder whose requests arrive in one order, and an initiator that gathers.
struct Gathering : WithBroker {
    kavri_core_ipc_options chosen = [] {
        kavri_core_ipc_options options{};
        options.gatherWrites = 1;
        return options;
    }();
    Responder responder{address, "order"};
    Inbox arrived;
    Initiator initiator{address, chosen};

    Gathering() { requireSuccess(responder.onRequest(Inbox::request, &arrived), "no callback"); }

    kavri_core_status ask(const std::string& uuid, std::size_t payloadBytes = 1) {
        return initiator.send("order", "command", uuid, std::string(payloadBytes, 'x'));
    }
    kavri_core_status askBatch(const std::string& first, const std::string& second) {
        const std::array<kavri_core_ipc_command, 2> commands{
            {{"order", "command", first.c_str(), ""}, {"order", "command", second.c_str(), ""}}};
        std::size_t sent = 0;
        return kavri_core_ipc_initiator_command_send_batch(initiator.get(), commands.data(),
                                                           commands.size(), &sent);
    }
    // Has the callback do this.
    void within(Action& action) {
        BOOST_TEST(initiator.onResponse(Action::response, &action) == KAVRI_CORE_STATUS_NO_ERROR);
        BOOST_TEST(initiator.echo("0") == KAVRI_CORE_STATUS_NO_ERROR);
    }
};

BOOST_FIXTURE_TEST_CASE(whatACallbackSendsLeavesInTheOrderOfItsCalls, Gathering) {
    std::vector<kavri_core_status> statuses;
    Action action([&] {
        statuses = {ask("0"), ask("1"), askBatch("2", "3"), ask("4"), ask("5", 40000), ask("6")};
        statuses.push_back(initiator.subscribe("order"));
        statuses.push_back(ask("7"));
    });
    within(action);
    BOOST_TEST(arrived.waitFor(8));
    BOOST_TEST(arrived.uuids() == numbers(8), boost::test_tools::per_element());
    BOOST_TEST(std::ranges::count(statuses, KAVRI_CORE_STATUS_NO_ERROR) == 8);
    BOOST_TEST(initiator.onResponse(nullptr, nullptr) == KAVRI_CORE_STATUS_NO_ERROR);
}

BOOST_FIXTURE_TEST_CASE(anotherThreadSendsBehindWhatTheCallbackHasSent, Gathering) {
    kavri_core_status status = KAVRI_CORE_STATUS_IPC_FAILED;
    kavri_core_status otherStatus = KAVRI_CORE_STATUS_IPC_FAILED;
    bool haveArrived = false;
    Action action([&] {
        status = ask("0");
        std::thread([&] { otherStatus = ask("1"); }).join();
        haveArrived = arrived.waitFor(2);  // although this call has not ended
    });
    within(action);
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(status == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(otherStatus == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(haveArrived);
    BOOST_TEST(arrived.uuids() == numbers(2), boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(aCallbackReceivesTheAnswerToWhatItHasSent, Gathering) {
    std::optional<Message> answer;
    Action action([&] {
        initiator.echo("mine");
        answer.emplace(initiator.receive());
    });
    BOOST_TEST(initiator.onEvent(Action::event, &action) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(initiator.subscribe("order") == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(responder.publish("order", "event", "") == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_REQUIRE(action.waitForEnd());
    BOOST_TEST(answer->status == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(answer->uuid.value_or("none") == "mine");
}

// A responder that gathers, answers within its callback, and ends there.
struct LastAnswer {
    Responder responder;

    static void answerAndEnd(kavri_core_ipc_request request, char** category, char** identifier,
                             char** uuid, char** payload, void* context) {
        Message message(KAVRI_CORE_STATUS_NO_ERROR, {*category, *identifier, *uuid, *payload});
        message.request = request;
        auto& self = *static_cast<LastAnswer*>(context);
        self.responder.answer(message, "last");
        self.responder.end();
    }
};

BOOST_FIXTURE_TEST_CASE(whatWasGatheredLeavesBeforeTheEnd, Gathering) {
    LastAnswer last{{address, "last", chosen}};
    BOOST_TEST(last.responder.onRequest(LastAnswer::answerAndEnd, &last) ==
               KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(initiator.send("last", "command") == KAVRI_CORE_STATUS_NO_ERROR);
    const Message answer = initiator.receive();
    BOOST_TEST(answer.status == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(answer.payload.value_or("none") == "last");
}

BOOST_AUTO_TEST_SUITE_END()
