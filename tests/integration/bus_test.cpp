// Messages between buses over a real server: what arrives, in which order, and what is said
// of what cannot.
#define BOOST_TEST_MODULE bus

#include <boost/test/unit_test.hpp>
#include <cstdlib>
#include <map>
#include <set>

#include "process/temporary_folder.h"
#include "support/nats_server.h"
#include "support/pumped_bus.h"

using namespace kavri;
using namespace kavri::tests;

namespace {

broker::BusOptions to(const NatsServer& server) {
    broker::BusOptions options;
    options.servers = {server.address()};
    options.name = "test";
    return options;
}

// Two buses at one server.
struct Pair {
    process::TemporaryFolder folder;
    NatsServer server{folder.path(), "max_payload: 65536\n"};
    PumpedBus near{to(server)};
    PumpedBus far{to(server)};

    Pair() {
        BOOST_REQUIRE(near.comesUp());
        BOOST_REQUIRE(far.comesUp());
    }

    // What either has subscribed to is known to the server when the answer is back.
    void settle() {
        settle(near);
        settle(far);
    }
    static void settle(PumpedBus& bus) {
        const std::string inbox = "settled." + std::to_string(++inboxes);
        const auto subscription = bus->subscribeAnswers(inbox);
        BOOST_REQUIRE(bus->publish("nobody.is.here", {}, inbox));
        bus->flush();
        BOOST_REQUIRE(bus.until([&] {
            return !bus.received.empty() && bus.received.back().subscription == subscription;
        }));
        bus->unsubscribe(subscription);
        bus.received.pop_back();
    }
    static inline int inboxes = 0;
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(messagesOfOneSubscriptionArriveInOrder, Pair) {
    const auto subscription = far->subscribe("numbers.*");
    settle();
    constexpr int count = 10'000;
    for (int i = 0; i < count; ++i) {
        BOOST_REQUIRE(near->publish("numbers." + std::to_string(i % 7), std::to_string(i), "back"));
        if (i % 100 == 0) {
            near->flush();
        }
    }
    near->flush();
    BOOST_REQUIRE(far.receives(count));
    for (int i = 0; i < count; ++i) {
        const auto& message = far.received.at(static_cast<std::size_t>(i));
        BOOST_REQUIRE(message.subscription == subscription);
        BOOST_REQUIRE(message.subject == "numbers." + std::to_string(i % 7));
        BOOST_REQUIRE(message.data == std::to_string(i));
        BOOST_REQUIRE(message.replyTo == "back");
        BOOST_REQUIRE(!message.nobodyListens);
    }
}

BOOST_FIXTURE_TEST_CASE(nothingIsSentBeforeAFlush, Pair) {
    BOOST_TEST(near->queuedBytes() == 0U);
    BOOST_TEST(near->publish("subject", "data"));
    BOOST_TEST(near->queuedBytes() > 4U);
    near->flush();
    BOOST_TEST(near->queuedBytes() == 0U);
}

BOOST_FIXTURE_TEST_CASE(anyBytesAndNoneAreData, Pair) {
    far->subscribe("bytes");
    settle();
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    BOOST_TEST(near->publish("bytes", all));
    BOOST_TEST(near->publish("bytes", {}));
    near->flush();
    BOOST_REQUIRE(far.receives(2));
    BOOST_TEST(far.received[0].data == all);
    BOOST_TEST(far.received[1].data.empty());
    BOOST_TEST(far.received[1].replyTo.empty());
    BOOST_TEST(!far.received[1].nobodyListens);
}

BOOST_FIXTURE_TEST_CASE(ownMessagesDoNotComeBack, Pair) {
    near->subscribe("mine");
    far->subscribe("mine");
    settle();
    BOOST_TEST(near->publish("mine", "data"));
    near->flush();
    BOOST_REQUIRE(far.receives(1));
    settle();
    BOOST_TEST(near.received.empty());
}

BOOST_FIXTURE_TEST_CASE(aMessageReachesOneOfAQueue, Pair) {
    PumpedBus third(to(server));
    BOOST_REQUIRE(third.comesUp());
    far->subscribe("work", "workers");
    third->subscribe("work", "workers");
    settle();
    settle(third);
    constexpr std::size_t count = 200;
    for (std::size_t i = 0; i < count; ++i) {
        BOOST_REQUIRE(near->publish("work", std::to_string(i)));
    }
    near->flush();
    BOOST_REQUIRE(far.until([&] {
        third.handle(0);
        return far.received.size() + third.received.size() >= count;
    }));
    settle(far);
    settle(third);
    BOOST_TEST(!far.received.empty());
    BOOST_TEST(!third.received.empty());
    std::multiset<std::string> all;
    for (const auto* bus : {&far, &third}) {
        for (const auto& message : bus->received) {
            all.insert(message.data);
        }
    }
    BOOST_TEST(all.size() == count);
    BOOST_TEST(std::set<std::string>(all.begin(), all.end()).size() == count);
}

// Also where the publisher itself is in the queue.
BOOST_FIXTURE_TEST_CASE(aMessageForAQueueReachesAnotherThanItsPublisher, Pair) {
    near->subscribe("work", "workers");
    far->subscribe("work", "workers");
    settle();
    for (int i = 0; i < 100; ++i) {
        BOOST_REQUIRE(near->publish("work", "data"));
    }
    near->flush();
    BOOST_TEST(far.receives(100));
    BOOST_TEST(near.received.empty());
}

BOOST_FIXTURE_TEST_CASE(thatNobodyListensIsSaid, Pair) {
    const auto inbox = near->subscribeAnswers("inbox.*");
    BOOST_TEST(near->publish("nobody", "data", "inbox.1"));
    near->flush();
    BOOST_REQUIRE(near.receives(1));
    BOOST_TEST(near.received[0].nobodyListens);
    BOOST_TEST(near.received[0].subscription == inbox);
    BOOST_TEST(near.received[0].subject == "inbox.1");

    // To its publisher alone, a subject is one that nobody listens to.
    near->subscribe("mine", "workers");
    BOOST_TEST(near->publish("mine", "data", "inbox.2"));
    near->flush();
    BOOST_REQUIRE(near.receives(2));
    BOOST_TEST(near.received[1].nobodyListens);
    BOOST_TEST(near.received[1].subject == "inbox.2");
}

BOOST_FIXTURE_TEST_CASE(whereItIsNotAskedForTheRestArrives, Pair) {
    near->subscribe("inbox");
    BOOST_TEST(near->publish("nobody", "data", "inbox"));
    settle();
    BOOST_TEST(far->publish("inbox", "a message"));
    far->flush();
    BOOST_REQUIRE(near.receives(1));
    BOOST_TEST(near.received[0].data == "a message");
}

BOOST_FIXTURE_TEST_CASE(nothingArrivesOnceUnsubscribed, Pair) {
    const auto first = far->subscribe("one");
    const auto second = far->subscribe("one");
    settle();
    far->unsubscribe(first);
    BOOST_TEST(near->publish("one", "data"));
    near->flush();
    BOOST_REQUIRE(far.receives(1));
    settle();
    BOOST_TEST(far.received.size() == 1U);
    BOOST_TEST(far.received[0].subscription == second);
}

// The messages are in the process already when their subscription is given up: the one that was
// published last has come.
BOOST_FIXTURE_TEST_CASE(whatWasReadIsDroppedWithItsSubscription, Pair) {
    const auto left = far->subscribe("left");
    const auto kept = far->subscribe("kept");
    const auto last = far->subscribe("last");
    settle();
    for (int i = 0; i < 3; ++i) {
        BOOST_REQUIRE(near->publish("left", "data"));
        BOOST_REQUIRE(near->publish("kept", "data"));
    }
    BOOST_REQUIRE(near->publish("last", "data"));
    near->flush();
    std::map<broker::Bus::SubscriptionId, int> taken;
    const auto take = [&] {
        const auto message = far->next();
        if (message) {
            ++taken[message->subscription];
        }
        return message.has_value();
    };
    BOOST_REQUIRE(eventually([&] {
        far->handle();
        while (taken[last] == 0 && take()) {
        }
        return taken[last] == 1;
    }));
    const int takenBefore = taken[left];
    far->unsubscribe(left);
    while (take()) {
    }
    BOOST_TEST(taken[left] == takenBefore);
    BOOST_TEST(taken[kept] == 3);
}

BOOST_FIXTURE_TEST_CASE(manySubscriptionsGetTheirOwn, Pair) {
    constexpr std::size_t count = 3'000;
    std::vector<broker::Bus::SubscriptionId> subscriptions;
    for (std::size_t i = 0; i < count; ++i) {
        subscriptions.push_back(far->subscribe("each." + std::to_string(i)));
    }
    far->flush();
    settle();
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i * 7 % count);
        BOOST_REQUIRE(near->publish("each." + number, number));
    }
    near->flush();
    BOOST_REQUIRE(far.receives(count));
    std::set<std::string> seen;
    for (const auto& message : far.received) {
        BOOST_REQUIRE(message.subscription == subscriptions.at(std::stoul(message.data)));
        seen.insert(message.data);
    }
    BOOST_TEST(seen.size() == count);
}

BOOST_FIXTURE_TEST_CASE(whatIsTooLargeIsRefusedAndNothingElse, Pair) {
    BOOST_TEST(near->connection().mostDataBytes == 65536U);
    far->subscribe("large");
    settle();
    BOOST_TEST(near->publish("large", std::string(65536, 'a')));
    BOOST_TEST(!near->publish("large", std::string(65537, 'a')));
    BOOST_TEST(near->publish("large", "small"));
    near->flush();
    BOOST_REQUIRE(far.receives(2));
    BOOST_TEST(far.received[0].data == std::string(65536, 'a'));
    BOOST_TEST(far.received[1].data == "small");
    BOOST_TEST(near->connection().times == 1U);
}

// The server reads nothing for a while: all that the kernel does not take stays here, and
// flushing neither waits nor loses any.
BOOST_FIXTURE_TEST_CASE(whatTheKernelDoesNotTakeIsWrittenLater, Pair) {
    far->subscribe("much");
    settle();
    server.suspend();
    std::size_t count = 0;
    const std::string data(60'000, 'd');
    while (near->queuedBytes() < (1U << 20U)) {
        BOOST_REQUIRE(near->publish("much", data));
        ++count;
        near->flush();
    }
    server.resume();
    BOOST_REQUIRE(far.until([&] {
        near.handle(0);
        return far.received.size() >= count;
    }));
    BOOST_TEST(near->queuedBytes() == 0U);
    for (const auto& message : far.received) {
        BOOST_REQUIRE(message.data == data);
    }
}

BOOST_AUTO_TEST_CASE(aRightThatIsMissingIsAComplaint) {
    const process::TemporaryFolder folder;
    const NatsServer server(folder.path(),
                            "authorization { users = [ { user: u, password: p, permissions: "
                            "{ publish: \"allowed.>\", subscribe: \"allowed.>\" } } ] }\n");
    std::ofstream(folder / "password") << "p\n";
    broker::BusOptions options = to(server);
    options.user = "u";
    options.passwordFile = folder / "password";
    PumpedBus bus(options);
    BOOST_REQUIRE(bus.comesUp());
    BOOST_TEST(bus->connection().complaint == "");
    BOOST_TEST(bus->publish("forbidden", "data"));
    bus->flush();
    BOOST_REQUIRE(bus.until([&] { return !bus->connection().complaint.empty(); }));
    BOOST_TEST(bus->connection().complaint.find("forbidden") != std::string::npos,
               bus->connection().complaint);
    BOOST_TEST(bus->connection().isUp);
}
