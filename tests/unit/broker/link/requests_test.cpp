// Requests to responders on other machines: who gets them, and what becomes of them.
#define BOOST_TEST_MODULE link_requests

#include <boost/test/unit_test.hpp>
#include <set>

#include "support/conversation.h"
#include "support/linked_broker.h"

using namespace kavri::tests;
using namespace std::chrono_literals;

namespace {

std::string notice(std::uint64_t token, kavri_core_status status) {
    return "notice " + std::to_string(token) + " status=" + std::to_string(status);
}
std::string noResponder(std::uint64_t token) {
    return notice(token, KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
}
std::string lost(std::uint64_t token) {
    return notice(token, KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
}

// An initiator on one machine, and a responder on another.
struct Two : LinkedWorld {
    LinkedBroker& here = start();
    LinkedBroker& there = start();
    Program& caller = here.initiator();
    Program& service = there.responder("test");

    Two() { settle(); }

    // Sent, and heard by the responder, which is to answer under this token.
    std::uint64_t ask(std::uint64_t token, std::string_view payload = "p") {
        here.say(caller, request(token, payload));
        settle();
        const std::string bytes = std::exchange(service.heard, {});
        return framesIn(bytes).at(0).token;
    }
    void answer(std::uint64_t token, std::string_view payload = "p") {
        there.say(service, response(token, payload));
        settle();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(aRequestIsAnswered, Two) {
    const std::uint64_t asked = ask(7, "hi");
    answer(asked, "hello");
    BOOST_TEST(here.hear(caller) == "response 7" + fields + "hello");
    BOOST_TEST(here.hear(caller).empty());
    BOOST_TEST(here.notes.size() == 1U);  // the link is up
    BOOST_TEST(there.notes.size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(aRoundKnowsWhetherItSentSomething, Two) {
    here.round();
    BOOST_TEST(!here.sentOverLink);
    here.say(caller, request(7, "hi"));
    here.round();
    BOOST_TEST(here.sentOverLink);
}

BOOST_FIXTURE_TEST_CASE(aCompletionAnswersToo, Two) {
    there.say(service, completion(ask(7)));
    settle();
    BOOST_TEST(here.hear(caller) == "completion 7");
}

BOOST_FIXTURE_TEST_CASE(aResponderThatIsNowhereIsToldAtOnce, LinkedWorld) {
    LinkedBroker& here = start(linkOf({}, {"*"}));
    start();
    Program& caller = here.initiator();
    settle();
    here.say(caller, request(7));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(7));
    here.say(caller, request(8, "p", ""));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(8));
    BOOST_TEST(here.link->channels().size() == 0U);
}

BOOST_FIXTURE_TEST_CASE(whatIsNotImportedIsNotAsked, LinkedWorld) {
    LinkedBroker& here = start(linkOf({"test"}, {"other"}));
    LinkedBroker& there = start();
    Program& caller = here.initiator();
    Program& service = there.responder("test");
    settle();
    here.say(caller, request(7));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(7));
    BOOST_TEST(there.hear(service).empty());
}

BOOST_FIXTURE_TEST_CASE(whatIsNotExportedIsNotServed, LinkedWorld) {
    LinkedBroker& here = start();
    LinkedBroker& there = start(linkOf({"other"}, {"test"}));
    Program& caller = here.initiator();
    Program& service = there.responder("test");
    settle();
    here.say(caller, request(7));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(7));
    BOOST_TEST(there.hear(service).empty());
}

BOOST_FIXTURE_TEST_CASE(respondersElsewhereServeOnlyWhereThePolicySaysSo, LinkedWorld) {
    LinkedBroker& here = start(linkOf({"test"}, {"test"}), {});
    LinkedBroker& there = start();
    Program& caller = here.initiator();
    Program& service = there.responder("test");
    settle();
    here.say(caller, request(7));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(7));
    BOOST_TEST(there.hear(service).empty());
}

BOOST_AUTO_TEST_CASE(initiatorsElsewhereSendOnlyWhereThePolicySaysSo) {
    Two world;
    kavri::broker::Policy policy = servedByLink();
    policy.otherCategories.send.listed.clear();
    world.there.changePolicy(policy);
    world.settle();
    world.here.say(world.caller, request(7));
    world.settle();
    BOOST_TEST(world.here.hear(world.caller) == noResponder(7));
}

BOOST_FIXTURE_TEST_CASE(aRightThatIsLostEndsTheChannel, Two) {
    ask(7);
    kavri::broker::Policy policy = servedByLink();
    policy.otherCategories.send.listed.clear();
    there.changePolicy(policy);
    settle();
    BOOST_TEST(here.hear(caller) == lost(7));
    here.say(caller, request(8));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(8));
}

BOOST_FIXTURE_TEST_CASE(aLostResponderIsTold, Two) {
    ask(7);
    there.leave(service);
    settle();
    BOOST_TEST(here.hear(caller) == lost(7));
    here.say(caller, request(8));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(8));
}

BOOST_FIXTURE_TEST_CASE(aLostBrokerIsToldWithinThreeSeconds, Two) {
    hub.asksBeyondCuts = true;
    ask(7);
    kill(there);
    run(1s);
    BOOST_TEST(here.hear(caller).empty());
    run(2s);
    BOOST_TEST(here.hear(caller) == lost(7));
    BOOST_TEST(here.link->channels().size() == 0U);
}

BOOST_FIXTURE_TEST_CASE(aPartitionIsToldWithinThreeSeconds, Two) {
    hub.asksBeyondCuts = true;
    ask(7);
    hub.cut(0, 1);
    hub.cut(1, 0);
    run(3s);
    BOOST_TEST(here.hear(caller) == lost(7));
    BOOST_TEST(there.link->channels().size() == 0U);
    hub.healAll();
    answer(ask(8));
    BOOST_TEST(here.hear(caller) == "response 8" + fields + "p");
}

BOOST_FIXTURE_TEST_CASE(theServerOfTheRespondersSideIsLost, Two) {
    ask(7);
    there.bus.disconnect();
    run(3s);
    BOOST_TEST(here.hear(caller) == lost(7));
    there.bus.reconnect();
    settle();
    answer(ask(8));
    BOOST_TEST(here.hear(caller) == "response 8" + fields + "p");
}

// An answer that is under way when its request is given up is nobody's.
BOOST_FIXTURE_TEST_CASE(aLateAnswerReachesNobody, Two) {
    const std::uint64_t asked = ask(7);
    hub.cut(1, 0);
    run(3s);
    BOOST_TEST(here.hear(caller) == lost(7));
    hub.healAll();
    there.say(service, response(asked));
    run(3s);
    BOOST_TEST(here.hear(caller).empty());
    answer(ask(8));
    BOOST_TEST(here.hear(caller) == "response 8" + fields + "p");
}

BOOST_FIXTURE_TEST_CASE(aResponderHereGoesFirst, Two) {
    Program& local = here.responder("test");
    here.say(caller, request(7));
    settle();
    BOOST_TEST(here.hear(local).substr(0, 7) == "request");
    BOOST_TEST(there.hear(service).empty());
}

BOOST_FIXTURE_TEST_CASE(anInitiatorStaysWithItsResponder, Two) {
    LinkedBroker& third = start();
    Program& other = third.responder("test");
    answer(ask(1));
    const bool isThere = there.link->channels().size() == 1;
    here.responder("test");  // even where one comes here
    for (std::uint64_t token = 2; token < 20; ++token) {
        here.say(caller, request(token));
        settle();
        Program& asked = isThere ? service : other;
        BOOST_REQUIRE(framesIn(asked.heard).size() == 1U);
        (isThere ? there : third).say(asked, response(framesIn(asked.heard).at(0).token));
        asked.heard.clear();
        settle();
    }
    BOOST_TEST(framesIn(caller.heard).size() == 19U);
}

BOOST_FIXTURE_TEST_CASE(initiatorsAreSpreadOverTheMachines, Two) {
    LinkedBroker& third = start();
    Program& other = third.responder("test");
    for (int i = 0; i < 40; ++i) {
        here.say(here.initiator(), request(1));
    }
    settle();
    BOOST_TEST(framesIn(service.heard).size() + framesIn(other.heard).size() == 40U);
    BOOST_TEST(framesIn(service.heard).size() > 5U);
    BOOST_TEST(framesIn(other.heard).size() > 5U);
}

BOOST_FIXTURE_TEST_CASE(aResponderThatMovesIsFoundAgain, Two) {
    LinkedBroker& third = start();
    answer(ask(1));
    there.leave(service);
    settle();
    Program& moved = third.responder("test");
    settle();
    here.hear(caller);
    here.say(caller, request(2));
    settle();
    third.say(moved, response(framesIn(moved.heard).at(0).token, "moved"));
    settle();
    BOOST_TEST(here.hear(caller) == "response 2" + fields + "moved");
}

BOOST_FIXTURE_TEST_CASE(requestsAndAnswersKeepTheirOrder, Two) {
    hub.mostDelay = 20ms;
    for (std::uint64_t token = 0; token < 200; ++token) {
        here.say(caller, request(token, std::to_string(token)));
        if (token % 7 == 0) {
            run(5ms, 1ms);
        }
    }
    run(100ms);
    const std::string bytes = std::exchange(service.heard, {});
    const auto asked = framesIn(bytes);
    BOOST_REQUIRE(asked.size() == 200U);
    for (std::size_t i = 0; i < 200; ++i) {
        BOOST_TEST(asked[i][Field::payload] == std::to_string(i));
    }
    for (std::size_t i = 200; i-- > 0;) {  // the responder's order, not the requests'
        there.say(service, response(asked[i].token));
    }
    run(100ms);
    const auto answers = framesIn(caller.heard);
    BOOST_REQUIRE(answers.size() == 200U);
    for (std::size_t i = 0; i < 200; ++i) {
        BOOST_TEST(answers[i].token == 199 - i);
    }
}

BOOST_FIXTURE_TEST_CASE(whatTheServerDoesNotTakeIsTooLarge, LinkedWorld) {
    hub.mostDataBytes = 100 * 1024;
    LinkedBroker& here = start();
    LinkedBroker& there = start();
    Program& caller = here.initiator();
    Program& service = there.responder("test");
    settle();
    const std::size_t most = hub.mostDataBytes - kavri::broker::envelopeBytes;
    std::string payload;
    here.say(caller, requestOfSize(7, most + 1, payload));
    BOOST_TEST(describeAll(here.hearBytes(*caller.session)) ==
               notice(7, KAVRI_CORE_STATUS_IPC_TOO_LARGE));
    here.say(caller, requestOfSize(8, most, payload));
    settle();
    const std::string asked = std::exchange(service.heard, {});
    BOOST_REQUIRE(asked.size() == most);
    // A response that is too large completes its request.
    there.say(service, response(framesIn(asked).at(0).token, std::string(most, 'r')));
    settle();
    BOOST_TEST(here.hear(caller) == "completion 8");
}

BOOST_FIXTURE_TEST_CASE(nothingIsLeftOfAnybody, Two) {
    for (int i = 0; i < 5; ++i) {
        here.say(here.initiator(otherUser), request(1, std::string(20000, 'p')));
    }
    ask(9);
    settle();
    here.stop();
    there.stop();
    for (LinkedBroker* broker : {&here, &there}) {
        for (const uid_t user : {someUser, otherUser, kavri::broker::linkUser}) {
            BOOST_TEST(broker->userBytes(user) == 0U, "user " << user);
        }
        BOOST_TEST(broker->link->channels().size() == 0U);
    }
}

// The initiators are told when their responder's broker stops, not seconds later.
BOOST_FIXTURE_TEST_CASE(aBrokerThatStopsTellsTheOthers, Two) {
    ask(7);
    there.stop();
    settle();
    BOOST_TEST(here.hear(caller) == lost(7));
}

BOOST_FIXTURE_TEST_CASE(aPartitionOfTheWayThereIsToldWithinThreeSeconds, Two) {
    ask(7);
    hub.cut(0, 1);
    run(3s);
    BOOST_TEST(here.hear(caller) == lost(7));
    BOOST_TEST(there.link->channels().size() == 0U);
}

BOOST_FIXTURE_TEST_CASE(aPartitionOfTheWayBackIsToldWithinThreeSeconds, Two) {
    ask(7);
    hub.cut(1, 0);
    run(3s);
    BOOST_TEST(here.hear(caller) == lost(7));
    BOOST_TEST(there.link->channels().size() == 0U);
}

// Before anything came back from the initiator's side.
BOOST_FIXTURE_TEST_CASE(aPartitionAfterTheQuestionIsToldWithinThreeSeconds, Two) {
    hub.loses = [this](std::string_view, std::string_view data) {
        const auto opened = kavri::broker::openEnvelope(data);
        return opened && opened->envelope.sender == here.identity() &&
               opened->envelope.kind != kavri::broker::EnvelopeKind::open;
    };
    here.say(caller, request(7));
    run(3s);
    BOOST_TEST(here.hear(caller) == lost(7));
    BOOST_TEST(there.hear(service).empty());
}

BOOST_FIXTURE_TEST_CASE(aLostServerIsToldAtOnceAndComesBack, Two) {
    ask(7);
    here.bus.disconnect();
    settle();
    BOOST_TEST(here.hear(caller) == lost(7));
    here.say(caller, request(8));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(8));
    here.bus.reconnect();
    settle();
    answer(ask(9));
    BOOST_TEST(here.hear(caller) == "response 9" + fields + "p");
}

BOOST_FIXTURE_TEST_CASE(aConnectionThatWasReplacedAtOnceIsALostOne, Two) {
    ask(7);
    here.bus.disconnect();
    here.bus.reconnect();
    settle();
    BOOST_TEST(here.hear(caller) == lost(7));
    answer(ask(8));
    BOOST_TEST(here.hear(caller) == "response 8" + fields + "p");
}

// Each forgets the other after a while without channels, one of them first.
BOOST_FIXTURE_TEST_CASE(brokersThatForgotEachOtherMeetAgain, Two) {
    hub.leastDelay = hub.mostDelay = 30ms;
    const auto known = [](const LinkedBroker& broker) {
        return broker.link->neighbours().all().size();
    };
    int hereFirst = 0;
    int thereFirst = 0;
    for (auto time = 200ms; time < 700ms; time += 20ms) {
        Program& another = here.initiator();
        here.say(another, request(8));
        run(time);
        BOOST_REQUIRE(framesIn(service.heard).size() == 1U);
        there.say(service, response(framesIn(service.heard).at(0).token));
        service.heard.clear();
        run(100ms);
        BOOST_TEST(here.hear(another) == "response 8" + fields + "p");
        here.leave(another);
        run(9s);
        while (known(here) + known(there) == 2) {
            run(10ms);
        }
        ++(known(here) == 0 ? hereFirst : thereFirst);
    }
    BOOST_TEST(hereFirst > 0);
    BOOST_TEST(thereFirst > 0);
}

BOOST_FIXTURE_TEST_CASE(respondersElsewhereLoseTheRightToServe, Two) {
    ask(7);
    here.changePolicy({});
    settle();
    BOOST_TEST(here.hear(caller) == lost(7));
    here.say(caller, request(8));
    settle();
    BOOST_TEST(here.hear(caller) == noResponder(8));
}
