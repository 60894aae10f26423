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

BOOST_FIXTURE_TEST_CASE(anEventReachesEachSubscriberOnce, Two) {
    Program& another = here.subscriber("test");
    Program& onTheSameMachine = there.subscriber("test");
    Program& ofAnother = here.subscriber("other");
    settle();
    tell("news");
    for (Program* program : {&subscriber, &another}) {
        BOOST_TEST(here.hear(*program) == event("news"));
    }
    BOOST_TEST(there.hear(onTheSameMachine) == event("news"));
    BOOST_TEST(here.hear(ofAnother).empty());
}

// Its broker exports the category too, and hears what it publishes itself.
BOOST_FIXTURE_TEST_CASE(whatIsPublishedHereDoesNotComeBack, Two) {
    Program& onTheSameMachine = there.subscriber("test");
    settle();
    tell("one");
    tell("two");
    BOOST_TEST(there.hear(onTheSameMachine) == event("one") + "\n" + event("two"));
}

BOOST_FIXTURE_TEST_CASE(aGapClosesTheSubscribers, Two) {
    Program& onTheSameMachine = there.subscriber("test");
    tell("one");
    hub.loses = [](std::string_view, std::string_view data) {
        const auto opened = openEnvelope(data);
        return opened && opened->envelope.kind == EnvelopeKind::events;
    };
    tell("two");
    hub.loses = {};
    BOOST_TEST(subscriber.isConnected());
    tell("three");
    BOOST_TEST(subscriber.closing == eventsMissed("the link lost some"));
    BOOST_TEST(here.hear(subscriber).substr(0, event("one").size()) == event("one"));
    BOOST_TEST(onTheSameMachine.isConnected());
    // It comes back, and misses nothing more.
    Program& again = here.subscriber("test");
    settle();
    tell("four");
    BOOST_TEST(here.hear(again) == event("four"));
    BOOST_TEST(again.isConnected());
}

BOOST_FIXTURE_TEST_CASE(anEventThatTheServerDoesNotTakeIsAGap, LinkedWorld) {
    hub.mostDataBytes = 100 * 1024;
    LinkedBroker& here = start();
    LinkedBroker& there = start();
    Program& subscriber = here.subscriber("test");
    Program& onTheSameMachine = there.subscriber("test");
    Program& publisher = there.responder("test");
    settle();
    const auto tell = [&](const std::string& payload) {
        there.say(publisher, publish(payload));
        settle();
    };
    tell("one");
    tell(std::string(hub.mostDataBytes, 'l'));
    BOOST_TEST(there.notes.back() ==
               "an event is larger than the link carries: it reaches no other machine");
    BOOST_TEST(subscriber.isConnected());
    tell("three");
    BOOST_TEST(subscriber.closing == eventsMissed("the link lost some"));
    BOOST_TEST(framesIn(onTheSameMachine.heard).size() == 3U);
}

BOOST_FIXTURE_TEST_CASE(aBrokerThatStopsPublishesWhatWaits, Two) {
    tell("one");
    there.say(publisher, publish("two"));
    std::vector<std::string> subjects;
    hub.sees = [&](std::string_view subject) { subjects.emplace_back(subject); };
    there.stop();
    settle();
    // Nothing of the goodbye.
    BOOST_TEST(subjects == std::vector<std::string>(1, kavri::broker::eventsSubject("test")),
               boost::test_tools::per_element());
    BOOST_TEST(here.hear(subscriber) == event("one") + "\n" + event("two"));
    BOOST_TEST(subscriber.isConnected());
}

// Nobody waits for long for a link that takes nothing.
BOOST_FIXTURE_TEST_CASE(aLinkThatTakesNothingIsAGapAtMost, Two) {
    tell("one");
    there.bus.mostFlushedBytes = 0;
    const std::string large(10000, 'l');
    std::size_t told = 0;
    for (int i = 0; i < 4000; ++i) {
        if (publisher.maySpeak()) {
            there.say(publisher, publish(large));
            ++told;
        }
        run(1ms, 1ms);
        BOOST_REQUIRE(there.userBytes(kavri::broker::linkUser) < 10 * kavri::wire::mebibyte);
        BOOST_REQUIRE(there.bus.queuedBytes() < 3 * kavri::wire::mebibyte);
    }
    BOOST_TEST(told > 3000U);
    there.bus.mostFlushedBytes = SIZE_MAX;
    run(1s);
    tell("last");
    BOOST_TEST(subscriber.closing == eventsMissed("the link lost some"));
    there.stop();
    BOOST_TEST(there.userBytes(kavri::broker::linkUser) == 0U);
}

// As when servers that had lost each other deliver what was on its way behind later messages.
BOOST_FIXTURE_TEST_CASE(whatComesLateIsDroppedAlsoAfterASubscriberCameBack, Two) {
    std::string subject;
    std::string late;
    hub.loses = [&](std::string_view on, std::string_view data) {
        const auto opened = openEnvelope(data);
        const bool isEvents = opened && opened->envelope.kind == EnvelopeKind::events;
        if (isEvents && late.empty()) {
            subject = on;
            late = data;
        }
        return isEvents;
    };
    tell("one");
    hub.loses = {};
    tell("two");
    here.leave(subscriber);
    settle();
    Program& again = here.subscriber("test");
    settle();
    BOOST_REQUIRE(!late.empty());
    there.bus.publish(subject, late, {});
    there.bus.flush();
    settle();
    BOOST_TEST(here.hear(again).empty());
    tell("three");
    BOOST_TEST(here.hear(again) == event("three"));
    BOOST_TEST(again.isConnected());
}

// What is published while nobody here is subscribed is not missed by who comes after.
BOOST_FIXTURE_TEST_CASE(whatNobodyListenedToIsNotMissed, Two) {
    tell("one");
    here.leave(subscriber);
    settle();
    tell("two");
    Program& again = here.subscriber("test");
    settle();
    tell("three");
    BOOST_TEST(here.hear(again) == event("three"));
    BOOST_TEST(again.isConnected());
}
