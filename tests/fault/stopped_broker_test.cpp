// A broker that is there and does nothing: it neither takes nor gives, as when it
// is stopped by a signal.
#define BOOST_TEST_MODULE stoppedBroker

#include <boost/test/unit_test.hpp>
#include <set>

#include "support/scripted_connection.h"
#include "support/with_broker.h"

using namespace kavri::tests;
namespace wire = kavri::wire;
using Clock = std::chrono::steady_clock;

namespace {

struct Setting : WithBroker {
    ~Setting() { broker.thaw(); }
};

constexpr std::chrono::milliseconds timeout{100};
const kavri_core_ipc_options shortSend = sendWithin(100);

// Sends until a send fails: how many did not, and why the last did.
struct Filled {
    std::size_t sent = 0;
    kavri_core_status status = good;
    Clock::duration lastTook{};
};
Filled fill(Initiator& initiator, std::size_t payloadBytes) {
    Filled filled;
    const std::string payload(payloadBytes, 'x');
    while (true) {
        const auto begin = Clock::now();
        filled.status = initiator.echo(std::to_string(filled.sent), payload);
        filled.lastTook = Clock::now() - begin;
        if (filled.status != good) {
            return filled;
        }
        ++filled.sent;
    }
}

// Numbers "0" and so on, a megabyte each: more than the sockets hold.
constexpr std::size_t hugeCount = 8;
kavri_core_status sendTooMuch(Initiator& initiator) {
    kavri_core_status status = good;
    for (std::size_t i = 0; i < hugeCount && status == good; ++i) {
        status = initiator.echo(std::to_string(i), std::string(1'000'000, 'x'));
    }
    return status;
}

// A batch of so many requests of a kilobyte likewise.
constexpr std::size_t longBatch = 10'000;

}  // namespace

BOOST_FIXTURE_TEST_SUITE(stoppedBroker, Setting)

BOOST_AUTO_TEST_CASE(aSendOfWhichNothingWentOutIsOverloadedAfterItsTimeout) {
    Initiator initiator(address, shortSend);
    broker.freeze();
    const Filled filled = fill(initiator, 1000);
    BOOST_TEST(filled.status == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_TEST((filled.lastTook >= timeout));
    BOOST_TEST(filled.sent > 0U);
    // Nothing is lost but what was refused, and the connection is as before.
    broker.thaw();
    BOOST_TEST((receiveUuids(initiator, filled.sent) == numbers(filled.sent)));
    BOOST_TEST(initiator.echoes("next"));
}

BOOST_AUTO_TEST_CASE(aSendOfWhichAPartWentOutLosesTheConnection) {
    Initiator initiator(address, shortSend);
    broker.freeze();
    const Filled filled = fill(initiator, 1'000'000);
    BOOST_TEST(filled.status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    BOOST_TEST((filled.lastTook >= timeout));
    broker.thaw();
    BOOST_TEST(initiator.echoes("next"));
}

BOOST_AUTO_TEST_CASE(aSendGoesOnWhenTheBrokerDoes) {
    Initiator initiator(address);
    broker.freeze();
    kavri_core_status status = KAVRI_CORE_STATUS_IPC_FAILED;
    BlockedCall send([&] { status = sendTooMuch(initiator); });
    BOOST_TEST(send.sleeps());
    broker.thaw();
    send.join();
    BOOST_TEST(status == good);
    for (const std::string& uuid : numbers(hugeCount)) {
        const Message received = initiator.receive();
        BOOST_TEST((received.uuid == uuid));
        BOOST_TEST((received.payload == std::string(1'000'000, 'x')));
    }
}

BOOST_AUTO_TEST_CASE(aBlockedSendReturnsWhenTheBrokerIsKilled) {
    Initiator initiator(address);
    broker.freeze();
    kavri_core_status status = good;
    BlockedCall send([&] { status = sendTooMuch(initiator); });
    BOOST_TEST(send.sleeps());
    broker.kill();
    send.join();
    BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
}

BOOST_AUTO_TEST_CASE(otherThreadsReceiveWhileOneIsBlockedInASend) {
    Initiator initiator(address);
    initiator.echo("before");
    // When this is answered, the one before is on its way.
    BOOST_TEST(Initiator(address).echoes());
    broker.freeze();
    BlockedCall send([&] { sendTooMuch(initiator); });
    BOOST_TEST(send.sleeps());
    BOOST_TEST((initiator.receive(-1).uuid == "before"));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(!send.hasReturned());
    broker.thaw();
    send.join();
    BOOST_TEST((receiveUuids(initiator, hugeCount) == numbers(hugeCount)));
}

BOOST_AUTO_TEST_CASE(aSecondSendWaitsForTheFirst) {
    Initiator initiator(address);
    broker.freeze();
    BlockedCall first([&] { sendTooMuch(initiator); });
    BOOST_TEST(first.sleeps());
    BlockedCall second([&] { initiator.echo("second"); });
    BOOST_TEST(second.sleeps());
    broker.thaw();
    first.join();
    second.join();
    // Behind the one that was under way; the first thread's others may come later.
    std::set<Text> uuids;
    for (std::size_t i = 0; i < hugeCount + 1; ++i) {
        const Text uuid = initiator.receive().uuid;
        BOOST_TEST((uuid != "second" || uuids.contains(Text("0"))));
        uuids.insert(uuid);
    }
    BOOST_TEST(uuids.contains(Text("second")));
    BOOST_TEST(uuids.size() == hugeCount + 1);
}

BOOST_AUTO_TEST_CASE(aBatchGoesOnWhenTheBrokerDoes) {
    Initiator initiator(address);
    constexpr std::size_t count = longBatch;
    const std::string payload(1000, 'x');
    std::size_t sent = 0;
    kavri_core_status status = KAVRI_CORE_STATUS_IPC_FAILED;
    broker.freeze();
    BlockedCall send([&] { status = initiator.echoBatch(numbers(count), payload, sent); });
    BOOST_TEST(send.sleeps());
    broker.thaw();
    send.join();
    BOOST_TEST(status == good);
    BOOST_TEST(sent == count);
    BOOST_TEST((receiveUuids(initiator, count) == numbers(count)));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_FIXTURE_TEST_CASE(anAnswerIsReceivedThoughTheBatchIsNotAllSentYet, ScriptedConnection) {
    constexpr std::size_t count = longBatch;
    std::size_t sent = 0;
    BlockedCall send([&] { initiator.echoBatch(numbers(count), std::string(1000, 'x'), sent); });
    BOOST_TEST(send.sleeps());
    // The last request that is there as a whole; the write it belongs to is
    // still under way.
    const std::string waiting = peer.peek();
    std::size_t last = 0;
    for (std::size_t at = 0; at + wire::headerBytes <= waiting.size();) {
        const auto measured = wire::measure(waiting.data() + at, wire::mebibyte);
        if (at + measured.frameBytes > waiting.size()) {
            break;
        }
        last = std::exchange(at, at + measured.frameBytes);
    }
    const Frame request = wire::decode(waiting.data() + last).value();
    Frame response = request;
    response.type = FrameType::response;
    peer.send(response);
    const Message received = initiator.receive(-1);
    BOOST_TEST(received.status == good);
    BOOST_TEST((received.uuid == std::string(request[Field::uuid])));
    BOOST_TEST(!send.hasReturned());
    for (std::size_t i = 0; i < count; ++i) {
        peer.expect(FrameType::request);
    }
    send.join();
    BOOST_TEST(sent == count);
}

BOOST_AUTO_TEST_CASE(aBatchThatCannotAllBeSentSaysHowManyWere) {
    Initiator initiator(address, shortSend);
    std::size_t sent = 0;
    broker.freeze();
    const kavri_core_status status =
        initiator.echoBatch(numbers(longBatch), std::string(1000, 'x'), sent);
    BOOST_TEST((status == KAVRI_CORE_STATUS_IPC_OVERLOADED ||
                status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST));
    BOOST_TEST(sent > 0U);
    BOOST_TEST(sent < longBatch);
    broker.thaw();
    const kavri_core_status expected =
        status == KAVRI_CORE_STATUS_IPC_OVERLOADED ? good : KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
    // One outcome for each that was sent, and none for the others.
    for (std::size_t i = 0; i < sent; ++i) {
        BOOST_REQUIRE(initiator.receive().status == expected);
    }
    BOOST_TEST(initiator.echoes("next"));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(noInitiatorIsMadeWithinTheTimeToConnect) {
    broker.freeze();
    const auto begin = Clock::now();
    BOOST_TEST(initStatus(optionsFor(address, connectWithin(100))) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    BOOST_TEST((Clock::now() - begin >= timeout));
}

BOOST_AUTO_TEST_CASE(aSubscriptionThatIsNotAcknowledgedIsOverloaded) {
    Initiator initiator(address, shortSend);
    broker.freeze();
    const auto begin = Clock::now();
    BOOST_TEST(initiator.subscribe("test") == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_TEST(initiator.unsubscribe("test") == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_TEST((Clock::now() - begin >= 2 * timeout));
    broker.thaw();
    // The broker may take longer than the short timeout to get to the first try.
    BOOST_TEST(eventually([&] { return initiator.subscribe("test") == good; }));
    Inbox inbox;
    initiator.onEvent(Inbox::event, &inbox);
    initiator.send("test", "event", "0", "after all");
    BOOST_TEST(inbox.waitFor(1));
}

// Far below what the sum of the calls' time limits would be, and far above one.
constexpr std::chrono::seconds generous{5};

BOOST_AUTO_TEST_CASE(eachOfManySendersReturnsWithinItsTimeout) {
    constexpr std::size_t count = 14;
    Initiator initiator(address, sendWithin(1000));
    broker.freeze();
    std::vector<Clock::duration> took(count);
    std::vector<kavri_core_status> statuses(count);
    {
        std::vector<std::jthread> senders;
        for (std::size_t i = 0; i < count; ++i) {
            senders.emplace_back([&, i] {
                // Too large for the socket: the last of them fills it and waits.
                while (statuses[i] == good) {
                    const auto begin = Clock::now();
                    statuses[i] = initiator.echo("0", std::string(100'000, 'x'));
                    took[i] = Clock::now() - begin;
                }
            });
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        BOOST_TEST((took[i] < generous));
        BOOST_TEST((statuses[i] == KAVRI_CORE_STATUS_IPC_OVERLOADED ||
                    statuses[i] == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST ||
                    statuses[i] == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE));
    }
}

BOOST_AUTO_TEST_CASE(aSubscribeBehindOtherSendersReturnsWithinItsTimeout) {
    Initiator initiator(address, sendWithin(1000));
    broker.freeze();
    fill(initiator, 1000);
    std::vector<std::jthread> senders;
    for (int i = 0; i < 5; ++i) {
        senders.emplace_back([&] { initiator.echo("0", std::string(1000, 'x')); });
    }
    const auto begin = Clock::now();
    BOOST_TEST(initiator.subscribe("test") == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_TEST((Clock::now() - begin < generous));
    const auto next = Clock::now();
    BOOST_TEST(initiator.unsubscribe("test") == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_TEST((Clock::now() - next < generous));
}

// The time to connect is longer than that of the call.
BOOST_AUTO_TEST_CASE(aSendThatConnectsReturnsWithinItsTimeoutThoughNobodyWelcomesIt) {
    kavri_core_ipc_options options = sendWithin(200);
    options.connectTimeoutMs = 60'000;
    ScriptedConnection scripted(options);
    Initiator& initiator = scripted.initiator;
    scripted.peer.close();
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    for (int i = 0; i < 2; ++i) {
        const auto begin = Clock::now();
        const kavri_core_status status = i == 0 ? initiator.echo("0") : initiator.subscribe("test");
        BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
        BOOST_TEST((Clock::now() - begin >= 2 * timeout));
        BOOST_TEST((Clock::now() - begin < generous));
    }
}

// More subscriptions than the socket holds: what restores them counts as well, and a
// connection without all of them is not kept.
BOOST_AUTO_TEST_CASE(aSendThatRestoresSubscriptionsReturnsWithinItsTimeout) {
    constexpr std::size_t count = 90;
    const std::string filling(60'000, 'c');
    ScriptedConnection scripted(sendWithin(2000));
    Initiator& initiator = scripted.initiator;
    for (const std::string& name : numbers(count)) {
        scripted.subscribe(name + filling);
    }
    scripted.peer.close();
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    auto welcomed = scripted.broker.welcomeNext();  // and reads no further
    const auto begin = Clock::now();
    const kavri_core_status status = initiator.echo("0");
    BOOST_TEST((Clock::now() - begin < generous));
    BOOST_TEST(status != good);
    const RawPeer peer = welcomed.get();
    auto restored = std::async(std::launch::async, [&] {
        while (true) {
            try {
                RawPeer next = scripted.broker.acceptAndWelcome();
                for (std::size_t i = 0; i < count; ++i) {
                    next.expect(FrameType::subscribe);
                }
                next.expect(FrameType::request);
                return;
            } catch (const std::runtime_error&) {
                // A connection that was begun when the time of the send before was over.
            }
        }
    });
    BOOST_TEST(initiator.echo("1") == good);
    restored.get();
}

BOOST_AUTO_TEST_CASE(callbacksAreRemovedAndEndedAllTheSame) {
    Initiator initiator(address);
    Inbox inbox;
    initiator.onResponse(Inbox::response, &inbox);
    broker.freeze();
    initiator.echo("0");
    BOOST_TEST(initiator.onResponse(nullptr, nullptr) == good);
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == good);
    BOOST_TEST(kavri_core_ipc_deinit(initiator.release()) == good);
    BOOST_TEST(inbox.count() == 0U);
}

BOOST_AUTO_TEST_SUITE_END()
