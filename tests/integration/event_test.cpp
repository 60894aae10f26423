// Subscriptions: who gets an event, and who does not.
//
// An event reaches the outboxes of its subscribers before anything that its
// publisher is sent afterwards. So whoever has received the answer to a later
// request of his own has also got the events before it, or never will.
#define BOOST_TEST_MODULE event

#include <boost/test/unit_test.hpp>

#include "support/raw_peer.h"
#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

// An initiator with its event callback installed, which records.
struct Listener {
    explicit Listener(const std::string& itsAddress) : address(itsAddress), initiator(itsAddress) {
        requireSuccess(initiator.onEvent(Inbox::event, &inbox), "no event callback");
    }

    void publish(const std::string& payload) { initiator.send("test", "event", "0", payload); }
    // Returns when all that was published before has come to this listener.
    void catchUp() { BOOST_TEST(initiator.echoes("caught up")); }
    // All that the callback was called with, when nothing else is to come: a last
    // event, of a category of its own, has come behind all others.
    std::vector<std::string> received() {
        catchUp();
        Responder marker(address, "marker");
        BOOST_TEST(initiator.subscribe("marker") == good);
        const std::string last = "last " + std::to_string(++marks);
        marker.publish("marker", "event", last);
        BOOST_TEST(eventually([&] {
            const auto payloads = inbox.payloads();
            return !payloads.empty() && payloads.back() == last;
        }));
        BOOST_TEST(initiator.unsubscribe("marker") == good);
        auto payloads = inbox.payloads();
        std::erase_if(payloads, [](const std::string& text) { return text.starts_with("last "); });
        return payloads;
    }

    const std::string address;
    int marks = 0;
    Inbox inbox;
    Initiator initiator;
};

using Payloads = std::vector<std::string>;

}  // namespace

BOOST_FIXTURE_TEST_SUITE(subscriptions, WithBroker)

BOOST_AUTO_TEST_CASE(anEventHasItsThreeFields) {
    Listener listener(address);
    BOOST_TEST(listener.initiator.subscribe("test") == good);
    listener.publish("my payload");
    BOOST_REQUIRE(listener.inbox.waitFor(1));
    const Message event = listener.inbox.messages().front();
    BOOST_TEST((event.category == "test"));
    BOOST_TEST(event.identifier.has_value());
    BOOST_TEST((event.payload == "my payload"));
}

BOOST_AUTO_TEST_CASE(eachSubscriberGetsEachEventOnce) {
    Listener one(address);
    Listener other(address);
    one.initiator.subscribe("test");
    other.initiator.subscribe("test");
    for (const std::string& payload : numbers(10)) {
        one.publish(payload);
    }
    BOOST_TEST(one.inbox.waitFor(10));
    BOOST_TEST(other.inbox.waitFor(10));
    BOOST_TEST((one.received() == numbers(10)));
    BOOST_TEST((other.received() == numbers(10)));
}

BOOST_AUTO_TEST_CASE(noEventComesBeforeSubscribing) {
    Listener listener(address);
    listener.publish("too early");
    listener.catchUp();
    listener.initiator.subscribe("test");
    listener.publish("in time");
    BOOST_TEST((listener.received() == Payloads{"in time"}));
}

BOOST_AUTO_TEST_CASE(noEventComesAfterUnsubscribing) {
    Listener listener(address);
    listener.initiator.subscribe("test");
    listener.publish("in time");
    BOOST_TEST(listener.inbox.waitFor(1));
    BOOST_TEST(listener.initiator.unsubscribe("test") == good);
    listener.publish("too late");
    BOOST_TEST((listener.received() == Payloads{"in time"}));
}

BOOST_AUTO_TEST_CASE(theBrokerSendsEventsToSubscribersOnly) {
    RawPeer peer(address, "initiator");
    const auto publishAndAsk = [&peer](FrameType before) {
        peer.send(makeFrame(FrameType::request, 1, {"test", "event", "0", "x"}));
        peer.send(makeFrame(FrameType::request, 2, {"test", "echo", "0", "x"}));
        if (before == FrameType::event) {
            peer.expect(FrameType::event);
        }
        peer.expect(FrameType::completion);
        peer.expect(FrameType::response);
    };
    publishAndAsk(FrameType::completion);
    peer.send(makeFrame(FrameType::subscribe, 3, {.category = "test"}));
    BOOST_TEST(peer.expect(FrameType::acknowledgement).values.token == 3U);
    publishAndAsk(FrameType::event);
    peer.send(makeFrame(FrameType::unsubscribe, 4, {.category = "test"}));
    BOOST_TEST(peer.expect(FrameType::acknowledgement).values.token == 4U);
    publishAndAsk(FrameType::completion);
}

BOOST_AUTO_TEST_CASE(anEventComesToWhoeverSubscribesAgain) {
    Listener listener(address);
    for (const std::string& payload : numbers(3)) {
        BOOST_TEST(listener.initiator.subscribe("test") == good);
        listener.publish(payload);
        BOOST_TEST(listener.inbox.waitFor(std::stoul(payload) + 1));
        BOOST_TEST(listener.initiator.unsubscribe("test") == good);
        listener.publish("between");
    }
    BOOST_TEST((listener.received() == numbers(3)));
}

BOOST_AUTO_TEST_CASE(subscribingTwiceDeliversOnceAndOneUnsubscribeEndsIt) {
    Listener listener(address);
    BOOST_TEST(listener.initiator.subscribe("test") == good);
    BOOST_TEST(listener.initiator.subscribe("test") == good);
    listener.publish("once");
    BOOST_TEST((listener.received() == Payloads{"once"}));
    BOOST_TEST(listener.initiator.unsubscribe("test") == good);
    listener.publish("never");
    BOOST_TEST((listener.received() == Payloads{"once"}));
}

BOOST_AUTO_TEST_CASE(endingASubscriptionThatIsNotThereIsNoFailure) {
    Initiator initiator(address);
    BOOST_TEST(initiator.unsubscribe("test") == good);
    BOOST_TEST(initiator.unsubscribe("nobody's") == good);
}

BOOST_AUTO_TEST_CASE(eventsAreDroppedWhileNoCallbackIsInstalled) {
    Listener listener(address);
    listener.initiator.onEvent(nullptr, nullptr);
    listener.initiator.subscribe("test");
    listener.publish("dropped");
    listener.catchUp();
    listener.initiator.onEvent(Inbox::event, &listener.inbox);
    listener.publish("delivered");
    BOOST_TEST((listener.received() == Payloads{"delivered"}));
}

BOOST_AUTO_TEST_CASE(responsesAreReceivedWhileAnEventCallbackIsInstalled) {
    Listener listener(address);
    listener.initiator.subscribe("test");
    for (const std::string& uuid : numbers(100)) {
        listener.initiator.echo(uuid);
        listener.publish(uuid);
    }
    BOOST_TEST((receiveUuids(listener.initiator, 100) == numbers(100)));
    BOOST_TEST(listener.inbox.waitFor(100));
    BOOST_TEST((listener.inbox.payloads() == numbers(100)));
}

BOOST_AUTO_TEST_CASE(responsesAndEventsGoEachToTheirOwnCallback) {
    Listener listener(address);
    Inbox responses;
    listener.initiator.onResponse(Inbox::response, &responses);
    listener.initiator.subscribe("test");
    for (const std::string& uuid : numbers(100)) {
        listener.initiator.echo(uuid);
        listener.publish(uuid);
    }
    BOOST_TEST(responses.waitFor(100));
    BOOST_TEST(listener.inbox.waitFor(100));
    BOOST_TEST((responses.uuids() == numbers(100)));
    BOOST_TEST((listener.inbox.payloads() == numbers(100)));
}

BOOST_AUTO_TEST_CASE(eventsOfEachCategoryGoToItsOwnSubscribers) {
    Responder fruit(address, "fruit");
    Responder stone(address, "stone");
    Listener eater(address);
    Listener mason(address);
    Listener both(address);
    eater.initiator.subscribe("fruit");
    mason.initiator.subscribe("stone");
    both.initiator.subscribe("fruit");
    both.initiator.subscribe("stone");
    BOOST_TEST(fruit.publish("fruit", "ripe", "apple") == good);
    BOOST_TEST(both.inbox.waitFor(1));
    BOOST_TEST(stone.publish("stone", "hewn", "granite") == good);
    BOOST_TEST(both.inbox.waitFor(2));
    BOOST_TEST((both.inbox.payloads() == Payloads{"apple", "granite"}));
    BOOST_TEST(both.inbox.messages()[1].text() == "stone hewn null granite");
    BOOST_TEST(eater.inbox.waitFor(1));
    BOOST_TEST(mason.inbox.waitFor(1));
    BOOST_TEST((eater.received() == Payloads{"apple"}));
    BOOST_TEST((mason.received() == Payloads{"granite"}));
}

BOOST_AUTO_TEST_CASE(aSubscriptionComesBeforeItsResponderAndOutlivesIt) {
    Listener listener(address);
    BOOST_TEST(listener.initiator.subscribe("later") == good);
    for (const std::string& payload : numbers(2)) {
        Responder responder(address, "later");
        BOOST_TEST(responder.publish("later", "event", payload) == good);
        BOOST_TEST(listener.inbox.waitFor(std::stoul(payload) + 1));
    }
    BOOST_TEST((listener.received() == numbers(2)));
}

BOOST_AUTO_TEST_CASE(largeEventsReachEverySubscriber) {
    Responder responder(address, "large");
    Listener one(address);
    Listener other(address);
    one.initiator.subscribe("large");
    other.initiator.subscribe("large");
    const std::string payload(1'000'000, 'x');
    BOOST_TEST(responder.publish("large", "event", payload) == good);
    BOOST_TEST(responder.publish("large", "event", "") == good);
    for (Listener* listener : {&one, &other}) {
        BOOST_TEST(listener->inbox.waitFor(2));
        BOOST_TEST((listener->inbox.payloads() == Payloads{payload, ""}));
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_CASE(moreSubscriptionsThanConfiguredAreOverloaded) {
    WithBroker limited({.config = "[limits]\nsubscriptions_per_initiator = 2"});
    Initiator initiator(limited.address);
    BOOST_TEST(initiator.subscribe("a") == good);
    BOOST_TEST(initiator.subscribe("b") == good);
    BOOST_TEST(initiator.subscribe("c") == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_TEST(initiator.unsubscribe("a") == good);
    BOOST_TEST(initiator.subscribe("c") == good);
}

BOOST_AUTO_TEST_CASE(aCategoryOthersMayNotSubscribeToIsRefused) {
    WithBroker restricted({.testService = true,
                           .config = "[access.category.\"test\"]\nsubscribe = []\nsend = []\n"
                                     "[access.category.\"mine\"]\nserve = []\n"});
    Initiator initiator(restricted.address);
    BOOST_TEST(initiator.subscribe("test") == KAVRI_CORE_STATUS_IPC_REFUSED);
    BOOST_TEST(initiator.subscribe("other") == good);
    BOOST_TEST(initiator.echo("0") == good);
    BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_REFUSED);
    BOOST_TEST(initStatus(optionsFor(restricted.address), "mine") == KAVRI_CORE_STATUS_IPC_REFUSED);
}
