// Back-pressure: who waits for those who take nothing, and who is closed.
#define BOOST_TEST_MODULE backPressure

#include <boost/test/unit_test.hpp>

#include "broker/routing/router.h"
#include "support/conversation.h"

using namespace kavri::tests;
using kavri::wire::Limits;

BOOST_AUTO_TEST_SUITE(holdingBack)

BOOST_FIXTURE_TEST_CASE(aRequestWaitsForAResponderThatIsThreeQuartersFull, Conversation) {
    fill(service, threeQuarters - 1);
    BOOST_TEST(say(caller, request(7)) == nullptr);
    hearBytes(service);
    fill(service, threeQuarters);
    BOOST_TEST(say(caller, request(8, "waits")) == &service);
    BOOST_TEST(service.sendQueue.bytes() == threeQuarters);
    BOOST_TEST(caller.asInitiator.pendingRequests == 1U);
    hearBytes(service);
    BOOST_TEST(resume(caller) == nullptr);
    const std::string bytes = hearBytes(service);
    BOOST_TEST(framesIn(bytes).at(0)[Field::payload] == "waits");
}

BOOST_FIXTURE_TEST_CASE(aRequestThatWaitsIsStillWaitingAfterAVainTry, Conversation) {
    fill(service, threeQuarters);
    BOOST_TEST(say(caller, request(8)) == &service);
    BOOST_TEST(resume(caller) == &service);
    BOOST_TEST(resume(caller) == &service);
    hearBytes(service);
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(describeAll(hearBytes(service)).find("request") == 0U);
    BOOST_TEST(caller.asInitiator.pendingRequests == 1U);
}

BOOST_FIXTURE_TEST_CASE(anAnswerWaitsForASlowInitiatorWhileItIsWorthIt, Conversation) {
    const auto token = ask(7);
    fill(caller, threeQuarters);
    BOOST_TEST(say(service, response(token)) == &caller);
    BOOST_TEST(service.asResponder.requestsInFlight == 1U);
    BOOST_TEST(caller.sendQueue.bytes() == threeQuarters);
    giveUpOn(caller);
    BOOST_TEST(resume(service) == nullptr);
    BOOST_TEST(service.asResponder.requestsInFlight == 0U);
    const std::string bytes = hearBytes(caller);
    BOOST_TEST(describe(framesIn(bytes).at(1)) == "response 7" + fields + "p");
}

BOOST_FIXTURE_TEST_CASE(anInitiatorThatIsFullIsClosedAndItsResponderGoesOn, Conversation) {
    const auto first = ask(7);
    const auto second = ask(8);
    giveUpOn(caller);
    fill(caller, queueLimit - 1);
    BOOST_TEST(say(service, response(first)) == nullptr);
    BOOST_TEST(closing(caller) == "");
    BOOST_TEST(caller.sendQueue.bytes() > queueLimit);
    const std::size_t before = caller.sendQueue.bytes();
    BOOST_TEST(say(service, response(second)) == nullptr);
    BOOST_TEST(closing(caller) == "status 14: its send queue is full: it reads too slowly");
    BOOST_TEST(caller.sendQueue.bytes() == before);
    BOOST_TEST(service.asResponder.requestsInFlight == 0U);
}

BOOST_FIXTURE_TEST_CASE(aSessionThatIsClosingGetsNothingMore, Conversation) {
    const auto token = ask(7);
    say(caller, makeFrame(FrameType::goodbye, 0, {.payload = ""}));
    BOOST_TEST(say(service, response(token)) == nullptr);
    BOOST_TEST(hear(caller) == "");
    BOOST_TEST(service.asResponder.requestsInFlight == 0U);
}

BOOST_FIXTURE_TEST_CASE(anEventWaitsForASlowSubscriberWhileItIsWorthIt, Conversation) {
    Session& quick = subscriber("test");
    Session& slow = subscriber("test");
    fill(slow, threeQuarters);
    BOOST_TEST(say(service, publish("news")) == &slow);
    BOOST_TEST(hear(quick) == "");  // nor does anybody get it twice later
    giveUpOn(slow);
    BOOST_TEST(resume(service) == nullptr);
    BOOST_TEST(hear(quick) == event("news"));
    BOOST_TEST(slow.sendQueue.bytes() > threeQuarters);
}

BOOST_FIXTURE_TEST_CASE(aSubscriberThatIsFullIsClosedAndTheOthersGetTheEvent, Conversation) {
    Session& full = subscriber("test");
    Session& quick = subscriber("test");
    fill(full, queueLimit);
    giveUpOn(full);
    BOOST_TEST(say(service, publish("news")) == nullptr);
    BOOST_TEST(closing(full) == "status 14: its send queue is full: it reads too slowly");
    BOOST_TEST(hear(quick) == event("news"));
}

BOOST_FIXTURE_TEST_CASE(anInitiatorTakesItsAnswersBeforeItAsksForMore, Conversation) {
    for (const Frame& frame : {request(7), subscribe(8), unsubscribe(9)}) {
        Session& congested = initiator();
        fill(congested, threeQuarters);
        BOOST_TEST(router.flowControl().isCongested(congested));
        BOOST_TEST(say(congested, frame) == &congested);
    }
    BOOST_TEST(hear(service) == "");
}

BOOST_FIXTURE_TEST_CASE(aResponderThatTakesNothingMayStillAnswer, Conversation) {
    const auto token = ask(7);
    fill(service, threeQuarters);
    BOOST_TEST(say(service, response(token)) == nullptr);
    BOOST_TEST(hear(caller) == "response 7" + fields + "p");
    BOOST_TEST(say(service, makeFrame(FrameType::ping, 1)) == &service);
}

BOOST_FIXTURE_TEST_CASE(thereIsRoomAgainBelowTheHalf, Conversation) {
    fill(caller, queueLimit / 2);
    BOOST_TEST(!router.flowControl().hasRoomAgain(caller));
    BOOST_TEST(!router.flowControl().isCongested(caller));
    caller.sendQueue.consume(1);
    BOOST_TEST(router.flowControl().hasRoomAgain(caller));
}

BOOST_AUTO_TEST_SUITE_END()

// All send queues of one user together.
BOOST_AUTO_TEST_SUITE(userLimits)

struct TwoUsers : Conversation {
    static Limits withSmallAccount() {
        Limits limits = smallLimits();
        limits.bytesPerUser = 2 * queueLimit;
        return limits;
    }
    TwoUsers() : Conversation(withSmallAccount()) {
        // Three quarters of the account, by sessions of which none is stalled itself.
        for (int i = 0; i < 2; ++i) {
            fill(initiator(), queueLimit / 2);
        }
        Session& last = initiator();
        fill(last, threeQuarters * 2 - userBytes(someUser));
        BOOST_REQUIRE(userBytes(someUser) == threeQuarters * 2);
    }
};

BOOST_FIXTURE_TEST_CASE(aFullAccountStallsThoseWhoHaveSomethingWaiting, TwoUsers) {
    BOOST_TEST(!router.flowControl().isCongested(service));
    BOOST_TEST(say(caller, request(7)) == nullptr);
    BOOST_TEST(router.flowControl().isCongested(service));
    BOOST_TEST(say(caller, request(8)) == &service);
    hearBytes(service);  // what takes everything is never slow
    BOOST_TEST(!router.flowControl().isCongested(service));
    BOOST_TEST(router.flowControl().hasRoomAgain(service));
}

BOOST_FIXTURE_TEST_CASE(aFullAccountIsNobodyElses, TwoUsers) {
    Session& others = responder("others", otherUser);
    Session& other = initiator(otherUser);
    BOOST_TEST(say(other, request(1, "p", "others")) == nullptr);
    BOOST_TEST(say(other, request(2, "p", "others")) == nullptr);
    BOOST_TEST(!router.flowControl().isCongested(others));
}

BOOST_FIXTURE_TEST_CASE(atTheAccountsLimitWhoHasSomethingWaitingIsClosed, TwoUsers) {
    const auto first = ask(7);
    const auto second = ask(8);
    Session& hoarder = initiator();
    fill(hoarder, queueLimit * 2 - userBytes(someUser));
    BOOST_TEST(say(service, response(first)) == nullptr);
    BOOST_TEST(closing(caller) == "");  // it had nothing waiting before
    giveUpOn(caller);
    fill(hoarder, hoarder.sendQueue.bytes() + 200);
    BOOST_TEST(say(service, response(second)) == nullptr);
    BOOST_TEST(closing(caller) != "");
}

BOOST_AUTO_TEST_SUITE_END()
