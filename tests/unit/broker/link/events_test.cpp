// Events of other machines: who gets them, in which order, and how often; and what is told
// of those that were missed.
#define BOOST_TEST_MODULE link_events

#include <boost/test/unit_test.hpp>

#include "support/conversation.h"
#include "support/linked_broker.h"

using namespace kavri::tests;
using namespace std::chrono_literals;
using kavri::broker::EnvelopeKind;
using kavri::broker::openEnvelope;

namespace {

std::string eventsMissed(const std::string& why) {
    return "status " + std::to_string(KAVRI_CORE_STATUS_IPC_CONNECTION_LOST) +
           ": events of category \"test\" from other machines were missed: " + why;
}

// A publisher on one machine, and a subscriber on another.
struct Two : LinkedWorld {
    LinkedBroker& here = start();
    LinkedBroker& there = start();
    Program& subscriber = here.subscriber("test");
    Program& publisher = there.responder("test");

    Two() { settle(); }

    void tell(const std::string& payload) {
        there.say(publisher, publish(payload));
        settle();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(eventsKeepTheirOrder, Two) {
    hub.mostDelay = 30ms;
    std::string expected;
    for (int i = 0; i < 300; ++i) {
        there.say(publisher, publish(std::to_string(i)));
        expected += (i == 0 ? "" : "\n") + event(std::to_string(i));
        if (i % 11 == 0) {
            run(3ms, 1ms);
        }
    }
    run(100ms);
    BOOST_TEST(here.hear(subscriber) == expected);
}

BOOST_FIXTURE_TEST_CASE(publishersOfSeveralMachinesAreHeard, Two) {
    LinkedBroker& third = start();
    Program& another = third.responder("test");
    settle();
    for (int i = 0; i < 3; ++i) {
        third.say(another, publish("third"));
        tell("second");
    }
    BOOST_TEST(framesIn(subscriber.heard).size() == 6U);
    BOOST_TEST(subscriber.isConnected());
}

BOOST_FIXTURE_TEST_CASE(whatCameOverTheLinkIsNotSentOn, Two) {
    LinkedBroker& third = start();
    Program& farther = third.subscriber("test");
    settle();
    tell("news");
    BOOST_TEST(here.hear(subscriber) == event("news"));
    BOOST_TEST(third.hear(farther) == event("news"));
}

BOOST_FIXTURE_TEST_CASE(onlyWhatIsSubscribedToCrosses, LinkedWorld) {
    LinkedBroker& here = start();
    const std::size_t before = here.bus.subscriptions();
    Program& one = here.subscriber("test");
    Program& other = here.subscriber("test");
    here.subscriber("not imported");
    BOOST_TEST(here.bus.subscriptions() == before + 1);
    here.leave(one);
    settle();
    BOOST_TEST(here.bus.subscriptions() == before + 1);
    here.say(other, unsubscribe(2));
    settle();
    BOOST_TEST(here.bus.subscriptions() == before);
}

BOOST_FIXTURE_TEST_CASE(whatIsNotExportedDoesNotCross, LinkedWorld) {
    LinkedBroker& here = start();
    LinkedBroker& there = start(linkOf({"other"}, {}));
    Program& subscriber = here.subscriber("test");
    Program& publisher = there.responder("test");
    settle();
    there.say(publisher, publish("news"));
    settle();
    BOOST_TEST(here.hear(subscriber).empty());
}

BOOST_FIXTURE_TEST_CASE(eventsCrossOnlyWherePoliciesSaySo, Two) {
    kavri::broker::Policy closed = servedByLink();
    closed.otherCategories.subscribe.listed.clear();
    there.changePolicy(closed);
    settle();
    tell("not exported");
    there.changePolicy(servedByLink());
    settle();
    here.changePolicy({});
    settle();
    tell("not served by others");
    BOOST_TEST(here.hear(subscriber).empty());
    here.changePolicy(servedByLink());
    settle();
    tell("news");
    BOOST_TEST(here.hear(subscriber) == event("news"));
    BOOST_TEST(subscriber.isConnected());
}

BOOST_FIXTURE_TEST_CASE(aLostServerClosesTheSubscribersWhenItIsBack, Two) {
    Program& another = here.subscriber("other");
    tell("one");
    here.bus.disconnect();
    run(1s);
    tell("two");
    BOOST_TEST(subscriber.isConnected());
    here.bus.reconnect();
    settle();
    BOOST_TEST(subscriber.closing == eventsMissed("the link was down"));
    BOOST_TEST(another.isConnected());  // nothing of its category is imported
}

BOOST_FIXTURE_TEST_CASE(aLostServerOfThePublisherIsAGap, Two) {
    tell("one");
    there.bus.disconnect();
    settle();
    tell("two");
    there.bus.reconnect();
    settle();
    tell("three");
    BOOST_TEST(subscriber.closing == eventsMissed("the link lost some"));
}

// Its connection broke and came back before the broker noticed.
BOOST_FIXTURE_TEST_CASE(whatWasOnItsWayWhenAServerWasLostIsAGap, Two) {
    tell("one");
    there.bus.mostFlushedBytes = 0;
    tell("two");
    there.bus.disconnect();
    there.bus.reconnect();
    there.bus.mostFlushedBytes = SIZE_MAX;
    settle();
    tell("three");
    BOOST_TEST(subscriber.closing == eventsMissed("the link lost some"));
}

// Until it is given up on, its feed waits; then the others go on without it.
BOOST_FIXTURE_TEST_CASE(aSlowSubscriberHoldsUpNobodyForLong, Two) {
    Program& slow = here.subscriber("test");
    settle();
    slow.reads = false;
    const std::string large(10000, 'l');
    for (int i = 0; i < 3000; ++i) {
        if (publisher.maySpeak()) {
            there.say(publisher, publish(large));
        }
        run(1ms, 1ms);
        BOOST_REQUIRE(here.userBytes(kavri::broker::linkUser) < 5 * kavri::wire::mebibyte);
    }
    BOOST_TEST(subscriber.isConnected());
    BOOST_TEST(framesIn(subscriber.heard).size() == 3000U);
    BOOST_TEST(!slow.isConnected());
    here.stop();
    BOOST_TEST(here.userBytes(kavri::broker::linkUser) == 0U);
    BOOST_TEST(here.userBytes(someUser) == 0U);
}
