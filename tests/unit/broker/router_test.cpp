// Where frames go: conversations of initiators, responders and subscribers, and
// what becomes of those who take nothing.
#define BOOST_TEST_MODULE router

#include "broker/routing/router.h"

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "broker/hosted_test_service.h"
#include "process/temporary_folder.h"
#include "support/scripted_broker.h"

using namespace kavri::tests;
using kavri::broker::Policy;
using kavri::wire::largeFrameBytes;
using kavri::wire::Limits;

namespace {

constexpr std::size_t queueLimit = 64 * 1024;
constexpr std::size_t threeQuarters = queueLimit / 4 * 3;

// Small enough that a test fills it with a few frames.
Limits smallLimits() {
    Limits limits;
    limits.sendQueueBytes = queueLimit;
    limits.bytesPerUser = 10 * queueLimit;
    limits.openRequestsPerInitiator = 3;
    limits.openRequestsPerResponder = 5;
    limits.subscriptionsPerInitiator = 2;
    return limits;
}

Policy onlySomeUserAt(const std::string& category) {
    Policy policy;
    policy.categories[category] = {{false, {someUser}}, {false, {someUser}}, {false, {someUser}}};
    return policy;
}

Frame request(std::uint64_t token, std::string_view payload = "p",
              std::string_view category = "test") {
    return makeFrame(FrameType::request, token, {category, "echo", "u", payload});
}
Frame response(std::uint64_t token, std::string_view payload = "p") {
    return makeFrame(FrameType::response, token, {"test", "echo", "u", payload});
}
Frame completion(std::uint64_t token) {
    return makeFrame(FrameType::completion, token);
}
Frame publish(std::string_view payload, std::string_view category = "test") {
    return makeFrame(FrameType::publish, 0, {category, "event", {}, payload});
}
Frame subscribe(std::uint64_t token, std::string_view category = "test") {
    return makeFrame(FrameType::subscribe, token, {.category = category});
}
Frame unsubscribe(std::uint64_t token, std::string_view category = "test") {
    return makeFrame(FrameType::unsubscribe, token, {.category = category});
}
Frame registration(std::uint64_t token, std::string_view category = "test") {
    return makeFrame(FrameType::registration, token, {.category = category});
}

const std::string fields = " category=test identifier=echo uuid=u payload=";

// An initiator and the responder of "test".
struct Conversation : ScriptedBroker {
    explicit Conversation(const Limits& itsLimits = smallLimits(), Policy itsPolicy = {})
        : ScriptedBroker(itsLimits, std::move(itsPolicy)) {}

    Session& caller = initiator();
    Session& service = responder("test");

    // The token under which the responder has the request.
    std::uint64_t ask(std::uint64_t token) {
        BOOST_TEST(say(caller, request(token)) == nullptr);
        return hearToken(service);
    }

    // Puts something into the session's send queue up to just this many bytes.
    void fill(Session& session, std::size_t bytes) {
        session.sendQueue.appendCopy(encode(
            makeFrame(FrameType::goodbye, 0,
                      {.payload = std::string(bytes - session.sendQueue.bytes() - 32, 'f')})));
        BOOST_REQUIRE(session.sendQueue.bytes() == bytes);
    }
};

}  // namespace

BOOST_AUTO_TEST_SUITE(requests)

BOOST_FIXTURE_TEST_CASE(aRequestIsAnsweredUnderTheSendersToken, Conversation) {
    say(caller, request(7, "hi"));
    const std::string bytes = hearBytes(service);
    const Frame asked = framesIn(bytes).at(0);
    BOOST_TEST(describe(asked) == "request " + std::to_string(asked.token) + fields + "hi");
    say(service, response(asked.token, "hello"));
    BOOST_TEST(hear(caller) == "response 7" + fields + "hello");
    BOOST_TEST(caller.asInitiator.pendingRequests == 0U);
    BOOST_TEST(service.asResponder.requestsInFlight == 0U);
    BOOST_TEST(notes.empty());
}

BOOST_FIXTURE_TEST_CASE(requestsArriveInTheOrderSent, Conversation) {
    say(caller, request(7, "first"));
    say(caller, request(8, "second"));
    const std::string bytes = hearBytes(service);
    const auto asked = framesIn(bytes);
    BOOST_REQUIRE(asked.size() == 2U);
    BOOST_TEST(asked[0][Field::payload] == "first");
    BOOST_TEST(asked[1][Field::payload] == "second");
    BOOST_TEST(asked[0].token != asked[1].token);
}

BOOST_FIXTURE_TEST_CASE(answersComeInTheOrderGiven, Conversation) {
    const auto first = ask(7);
    const auto second = ask(8);
    say(service, response(second));
    say(service, completion(first));
    BOOST_TEST(hear(caller) == "response 8" + fields + "p\ncompletion 7");
}

BOOST_FIXTURE_TEST_CASE(initiatorsMayUseTheSameTokens, Conversation) {
    Session& other = initiator();
    const auto callers = ask(7);
    say(other, request(7));
    const auto others = hearToken(service);
    BOOST_TEST(callers != others);
    say(service, response(others, "for the other"));
    say(service, response(callers, "for the caller"));
    BOOST_TEST(hear(caller) == "response 7" + fields + "for the caller");
    BOOST_TEST(hear(other) == "response 7" + fields + "for the other");
}

BOOST_FIXTURE_TEST_CASE(anAnswerWithoutPayloadStaysOne, Conversation) {
    say(service, makeFrame(FrameType::response, ask(7), {"test", "echo", "u", {}}));
    BOOST_TEST(hear(caller) == "response 7 category=test identifier=echo uuid=u");
    say(service, makeFrame(FrameType::response, ask(8), {"", "", "", ""}));
    BOOST_TEST(hear(caller) == "response 8 category= identifier= uuid= payload=");
}

BOOST_FIXTURE_TEST_CASE(eachCategoryHasItsOwnResponder, Conversation) {
    Session& elsewhere = responder("elsewhere");
    say(caller, request(7, "p", "elsewhere"));
    BOOST_TEST(hear(service) == "");
    BOOST_TEST(describeAll(hearBytes(elsewhere)).find("category=elsewhere") != std::string::npos);
}

BOOST_FIXTURE_TEST_CASE(aRequestThatNobodyServesIsNotDelivered, Conversation) {
    for (const char* category : {"nobody", "", "tes", "test "}) {
        say(caller, request(7, "p", category));
        BOOST_TEST(hear(caller) == "notice 7 status=10");
    }
    BOOST_TEST(hear(service) == "");
    BOOST_TEST(caller.asInitiator.pendingRequests == 0U);
}

BOOST_FIXTURE_TEST_CASE(aCategoryWithSubscribersAloneIsNotServed, Conversation) {
    subscriber("watched");
    say(caller, request(7, "p", "watched"));
    BOOST_TEST(hear(caller) == "notice 7 status=10");
}

BOOST_FIXTURE_TEST_CASE(aLargePayloadGoesThroughUnchanged, Conversation) {
    std::string payload(100'000, 'x');
    payload.replace(50'000, 6, "middle");
    say(caller, request(7, payload));
    const std::string asked = hearBytes(service);
    BOOST_TEST((framesIn(asked).at(0)[Field::payload] == payload));
    say(service, response(framesIn(asked).at(0).token, payload));
    const std::string answered = hearBytes(caller);
    BOOST_TEST((answered == encode(response(7, payload))));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(openRequestLimits)

BOOST_FIXTURE_TEST_CASE(anInitiatorHasSoManyRequestsOpenAndNoMore, Conversation) {
    const auto first = ask(1);
    ask(2);
    ask(3);
    say(caller, request(4));
    BOOST_TEST(hear(caller) == "notice 4 status=14");
    BOOST_TEST(hear(service) == "");
    say(service, response(first));
    hear(caller);
    ask(5);
    BOOST_TEST(caller.asInitiator.pendingRequests == 3U);
}

BOOST_FIXTURE_TEST_CASE(aResponderHasSoManyRequestsInHandAndNoMore, Conversation) {
    for (const std::uint64_t token : {1, 2, 3}) {
        ask(token);
    }
    Session& other = initiator();
    say(other, request(1));
    say(other, request(2));
    const std::string bytes = hearBytes(service);
    say(other, request(3));
    BOOST_TEST(hear(other) == "notice 3 status=14");
    say(service, completion(framesIn(bytes).at(0).token));
    say(other, request(4));
    BOOST_TEST(hear(other) == "completion 1");
    BOOST_TEST(service.asResponder.requestsInFlight == 5U);
}

BOOST_FIXTURE_TEST_CASE(aLimitReachedElsewhereIsNobodyElses, Conversation) {
    for (const std::uint64_t token : {1, 2, 3, 4}) {
        say(caller, request(token));
    }
    Session& other = initiator();
    say(other, request(1));
    BOOST_TEST(hear(other) == "");
}

BOOST_FIXTURE_TEST_CASE(aRequestRefusedForItsLimitTakesNoRoom, Conversation) {
    for (std::uint64_t token = 1; token <= 10; ++token) {
        say(caller, request(token));
    }
    BOOST_TEST(caller.asInitiator.pendingRequests == 3U);
    BOOST_TEST(service.asResponder.requestsInFlight == 3U);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(answers)

BOOST_FIXTURE_TEST_CASE(aSecondAnswerIsDropped, Conversation) {
    const auto token = ask(7);
    say(service, response(token));
    hear(caller);
    say(service, response(token));
    say(service, completion(token));
    BOOST_TEST(hear(caller) == "");
    const std::vector<std::string> expected = {
        "answered a request that is not pending; the answer is dropped",
        "completed a request that is not pending"};
    BOOST_TEST(notes == expected, boost::test_tools::per_element());
    BOOST_TEST(caller.asInitiator.pendingRequests == 0U);
}

BOOST_FIXTURE_TEST_CASE(anAnswerToWhatWasEndedIsDropped, Conversation) {
    const auto token = ask(7);
    say(service, completion(token));
    say(service, response(token));
    BOOST_TEST(hear(caller) == "completion 7");
    BOOST_TEST(notes.size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(anotherRespondersAnswerIsDropped, Conversation) {
    Session& stranger = responder("elsewhere");
    const auto token = ask(7);
    say(stranger, response(token));
    say(stranger, completion(token));
    BOOST_TEST(hear(caller) == "");
    BOOST_TEST(notes.size() == 2U);
    say(service, response(token));
    BOOST_TEST(hear(caller) == "response 7" + fields + "p");
}

BOOST_FIXTURE_TEST_CASE(anOldTokenDoesNotAnswerALaterRequest, Conversation) {
    const auto before = ask(7);
    say(service, response(before));
    hear(caller);
    ask(8);
    say(service, response(before));
    BOOST_TEST(hear(caller) == "");
}

BOOST_FIXTURE_TEST_CASE(aResponderThatServesNothingAnswersNothing, Conversation) {
    Session& idle = join("responder");
    say(idle, response(0));
    BOOST_TEST(notes.size() == 1U);
    BOOST_TEST(closing(idle) == "");
}

BOOST_FIXTURE_TEST_CASE(anAnswerToAnInitiatorThatLeftGoesNowhere, Conversation) {
    const auto first = ask(7);
    const auto second = ask(8);
    leave(caller);
    Session& newcomer = initiator();  // in the place of the one that left
    say(service, response(first));
    say(service, completion(second));
    BOOST_TEST(hear(newcomer) == "");
    BOOST_TEST(newcomer.asInitiator.pendingRequests == 0U);
    BOOST_TEST(service.asResponder.requestsInFlight == 0U);
    BOOST_TEST(notes.empty());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(respondersThatLeave)

BOOST_FIXTURE_TEST_CASE(everySenderOfARequestInHandIsTold, Conversation) {
    Session& other = initiator();
    ask(7);
    ask(8);
    say(service, response(ask(9)));
    hear(caller);
    say(other, request(9));
    leave(service);
    const std::string told = hear(caller);
    BOOST_TEST((told == "notice 7 status=11\nnotice 8 status=11" ||
                told == "notice 8 status=11\nnotice 7 status=11"),
               told);
    BOOST_TEST(hear(other) == "notice 9 status=11");
    BOOST_TEST(caller.asInitiator.pendingRequests == 0U);
    BOOST_TEST(other.asInitiator.pendingRequests == 0U);
}

BOOST_FIXTURE_TEST_CASE(theCategoryIsNobodysAgainAndThenAnothers, Conversation) {
    leave(service);
    say(caller, request(7));
    BOOST_TEST(hear(caller) == "notice 7 status=10");
    Session& successor = responder("test");
    say(caller, request(8));
    say(successor, response(hearToken(successor), "from the next"));
    BOOST_TEST(hear(caller) == "response 8" + fields + "from the next");
}

BOOST_FIXTURE_TEST_CASE(aSuccessorCannotAnswerForItsPredecessor, Conversation) {
    const auto token = ask(7);
    leave(service);
    hear(caller);
    Session& successor = responder("test");
    say(successor, response(token));
    BOOST_TEST(hear(caller) == "");
    BOOST_TEST(notes.size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(subscriptionsOutliveTheResponder, Conversation) {
    say(caller, subscribe(1));
    hear(caller);
    leave(service);
    Session& successor = responder("test");
    say(successor, publish("from the next"));
    BOOST_TEST(hear(caller) == "event 0 category=test identifier=event payload=from the next");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(registrations)

BOOST_FIXTURE_TEST_CASE(aRegistrationIsAcknowledgedUnderItsToken, Conversation) {
    Session& newcomer = join("responder");
    say(newcomer, registration(42, "new"));
    BOOST_TEST(hear(newcomer) == "acknowledgement 42");
}

BOOST_FIXTURE_TEST_CASE(aCategoryHasOneResponder, Conversation) {
    Session& second = join("responder");
    say(second, registration(2));
    BOOST_TEST(hear(second) == "acknowledgement 2 status=15");
    ask(7);
    BOOST_TEST(hear(second) == "");
}

BOOST_FIXTURE_TEST_CASE(aResponderHasOneCategory, Conversation) {
    for (const char* category : {"test", "another"}) {
        say(service, registration(2, category));
        BOOST_TEST(hear(service) == "acknowledgement 2 status=15");
    }
    say(caller, request(7, "p", "another"));
    BOOST_TEST(hear(caller) == "notice 7 status=10");
}

BOOST_FIXTURE_TEST_CASE(whoWasTooLateMayServeAnotherCategory, Conversation) {
    Session& second = join("responder");
    say(second, registration(2));
    say(second, registration(3, "another"));
    BOOST_TEST(hear(second) == "acknowledgement 2 status=15\nacknowledgement 3");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(rights)

struct Restricted : Conversation {
    Restricted() : Conversation(smallLimits(), onlySomeUserAt("test")) {}
    Session& stranger = initiator(otherUser);
};

BOOST_FIXTURE_TEST_CASE(aRequestThatIsNotAllowedIsRefused, Restricted) {
    say(stranger, request(7));
    BOOST_TEST(hear(stranger) == "notice 7 status=9");
    BOOST_TEST(hear(service) == "");
    BOOST_TEST(stranger.asInitiator.pendingRequests == 0U);
    ask(7);
}

BOOST_FIXTURE_TEST_CASE(itIsRefusedWhetherOrNotSomebodyServes, Restricted) {
    leave(service);
    say(stranger, request(7));
    BOOST_TEST(hear(stranger) == "notice 7 status=9");
}

BOOST_FIXTURE_TEST_CASE(aSubscriptionThatIsNotAllowedIsRefused, Restricted) {
    say(stranger, subscribe(1));
    BOOST_TEST(hear(stranger) == "acknowledgement 1 status=9");
    say(service, publish("secret"));
    BOOST_TEST(hear(stranger) == "");
    say(caller, subscribe(1));
    BOOST_TEST(hear(caller) == "acknowledgement 1");
}

BOOST_FIXTURE_TEST_CASE(aRegistrationThatIsNotAllowedIsRefused, Restricted) {
    leave(service);
    Session& pretender = join("responder", otherUser);
    say(pretender, registration(1));
    BOOST_TEST(hear(pretender) == "acknowledgement 1 status=9");
    say(caller, request(7));
    BOOST_TEST(hear(caller) == "notice 7 status=10");
}

BOOST_FIXTURE_TEST_CASE(otherCategoriesAreOpenToWhoeverConnects, Restricted) {
    responder("elsewhere", otherUser);
    say(stranger, subscribe(1, "elsewhere"));
    say(stranger, request(7, "p", "elsewhere"));
    BOOST_TEST(hear(stranger) == "acknowledgement 1");
    BOOST_TEST(stranger.asInitiator.pendingRequests == 1U);
}

BOOST_AUTO_TEST_CASE(eachRightIsAskedForByItself) {
    Policy policy;
    policy.categories["test"].send = {false, {someUser}};
    Conversation conversation(smallLimits(), policy);
    Session& stranger = conversation.initiator(otherUser);
    conversation.say(stranger, subscribe(1));
    conversation.say(stranger, request(7));
    BOOST_TEST(conversation.hear(stranger) == "acknowledgement 1\nnotice 7 status=9");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(events)

BOOST_FIXTURE_TEST_CASE(anEventReachesEverySubscriberAndNobodyElse, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    Session& elsewhere = subscriber("elsewhere");
    say(service, publish("news"));
    const std::string event = "event 0 category=test identifier=event payload=news";
    BOOST_TEST(hear(first) == event);
    BOOST_TEST(hear(second) == event);
    BOOST_TEST(hear(elsewhere) == "");
    BOOST_TEST(hear(caller) == "");
    BOOST_TEST(hear(service) == "");
}

BOOST_FIXTURE_TEST_CASE(eventsComeInTheOrderPublished, Conversation) {
    Session& watcher = subscriber("test");
    say(service, publish("one"));
    say(service, publish("two"));
    BOOST_TEST(hear(watcher) ==
               "event 0 category=test identifier=event payload=one\n"
               "event 0 category=test identifier=event payload=two");
}

BOOST_FIXTURE_TEST_CASE(whatIsReadAtOnceIsDeliveredInOrder, Conversation) {
    say(caller, subscribe(5));
    hear(caller);
    const std::uint64_t token = ask(7);
    sayBytes(service, encode(publish("one")) + encode(publish("two")) +
                          encode(publish("false news", "elsewhere")) + encode(publish("three")) +
                          encode(response(token)) + encode(publish("four")) + "no frame" +
                          std::string(32, '!'));
    const std::string event = "event 0 category=test identifier=event payload=";
    BOOST_TEST(hear(caller) == event + "one\n" + event + "two\n" + event + "three\nresponse 7" +
                                   fields + "p\n" + event + "four");
    BOOST_TEST(service.isClosing);
}

BOOST_FIXTURE_TEST_CASE(theAcknowledgementComesBeforeTheFirstEvent, Conversation) {
    say(caller, subscribe(5));
    say(service, publish("news"));
    BOOST_TEST(hear(caller) ==
               "acknowledgement 5\nevent 0 category=test identifier=event payload=news");
}

BOOST_FIXTURE_TEST_CASE(subscribingTwiceIsSubscribingOnce, Conversation) {
    say(caller, subscribe(5));
    say(caller, subscribe(6));
    BOOST_TEST(hear(caller) == "acknowledgement 5\nacknowledgement 6");
    say(service, publish("news"));
    BOOST_TEST(hear(caller) == "event 0 category=test identifier=event payload=news");
    say(caller, unsubscribe(7));
    BOOST_TEST(hear(caller) == "acknowledgement 7");
    say(service, publish("more"));
    BOOST_TEST(hear(caller) == "");
}

BOOST_FIXTURE_TEST_CASE(endingASubscriptionThatIsNotThereChangesNothing, Conversation) {
    Session& watcher = subscriber("test");
    say(caller, unsubscribe(7));
    say(caller, unsubscribe(8, "nobody"));
    BOOST_TEST(hear(caller) == "acknowledgement 7\nacknowledgement 8");
    say(service, publish("news"));
    BOOST_TEST(hear(watcher) == "event 0 category=test identifier=event payload=news");
}

BOOST_FIXTURE_TEST_CASE(aSubscriberThatLeftGetsNothing, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    leave(first);
    Session& newcomer = initiator();  // in the place of the one that left
    say(service, publish("news"));
    BOOST_TEST(hear(newcomer) == "");
    BOOST_TEST(hear(second) == "event 0 category=test identifier=event payload=news");
}

BOOST_FIXTURE_TEST_CASE(subscriptionsHaveALimit, Conversation) {
    for (const char* category : {"one", "two"}) {
        say(caller, subscribe(1, category));
        BOOST_TEST(hear(caller) == "acknowledgement 1");
    }
    say(caller, subscribe(2, "three"));
    BOOST_TEST(hear(caller) == "acknowledgement 2 status=14");
    say(caller, subscribe(3, "two"));  // there already
    BOOST_TEST(hear(caller) == "acknowledgement 3");
    say(caller, unsubscribe(4, "one"));
    say(caller, subscribe(5, "three"));
    BOOST_TEST(hear(caller) == "acknowledgement 4\nacknowledgement 5");
}

BOOST_FIXTURE_TEST_CASE(onlyWhoServesACategoryPublishesItsEvents, Conversation) {
    Session& watcher = subscriber("test");
    Session& elsewhere = responder("elsewhere");
    Session& idle = join("responder");
    say(elsewhere, publish("false news"));
    say(idle, publish("false news"));
    say(service, publish("false news", "elsewhere"));
    BOOST_TEST(hear(watcher) == "");
    BOOST_TEST(notes.size() == 3U);
    BOOST_TEST(notes.at(0) == "published an event of a category that it does not serve");
}

BOOST_FIXTURE_TEST_CASE(anEventThatNobodyWantsGoesNowhere, Conversation) {
    BOOST_TEST(say(service, publish("news")) == nullptr);
    BOOST_TEST(hear(service) == "");
    BOOST_TEST(notes.empty());
}

BOOST_FIXTURE_TEST_CASE(manySmallEventsReadAtOnceAreHeldOnceForAll, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    std::string bytes;
    std::string expected;
    for (int i = 0; bytes.size() < largeFrameBytes; ++i) {
        const std::string payload = std::to_string(i);
        bytes += encode(publish(payload));
        expected += (i == 0 ? "" : "\n") + std::string("event 0 category=test identifier=event") +
                    " payload=" + payload;
    }
    sayBytes(service, bytes);
    iovec firstPiece{};
    iovec secondPiece{};
    BOOST_REQUIRE(first.sendQueue.gather(&firstPiece, 1) == 1U);
    BOOST_REQUIRE(second.sendQueue.gather(&secondPiece, 1) == 1U);
    BOOST_TEST(firstPiece.iov_base == secondPiece.iov_base);
    BOOST_TEST(hear(first) == expected);
    BOOST_TEST(hear(second) == expected);
}

// Copying a small frame is cheaper than sharing it; a large one is never copied.
BOOST_FIXTURE_TEST_CASE(aLargeEventIsHeldOnceForAll, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    const std::size_t around = encode(publish("")).size();
    for (const std::size_t size : {largeFrameBytes - 1, largeFrameBytes, largeFrameBytes + 1}) {
        const std::string payload(size - around, 'e');
        say(service, publish(payload));
        iovec firstPiece{};
        iovec secondPiece{};
        BOOST_REQUIRE(first.sendQueue.gather(&firstPiece, 1) == 1U);
        BOOST_REQUIRE(second.sendQueue.gather(&secondPiece, 1) == 1U);
        BOOST_TEST((firstPiece.iov_base == secondPiece.iov_base) == (size >= largeFrameBytes));
        const std::string bytes = hearBytes(first);
        BOOST_TEST((framesIn(bytes).at(0)[Field::payload] == payload));
        BOOST_TEST((framesIn(bytes).at(0).type == FrameType::event));
        BOOST_TEST((hearBytes(second) == bytes));
    }
}

BOOST_AUTO_TEST_SUITE_END()

// Those who take nothing.
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

// So another's small request has at most one large one before it.
BOOST_AUTO_TEST_CASE(aLargeRequestWaitsWhileMuchIsAheadOfItAndASmallOneDoesNot) {
    constexpr std::size_t much = 64 * 1024;
    Conversation conversation{Limits{}};
    Session& other = conversation.initiator();
    const std::string payload(largeFrameBytes, 'l');
    conversation.fill(conversation.service, much);
    BOOST_TEST(conversation.say(conversation.caller, request(1, payload)) == nullptr);
    BOOST_TEST(conversation.say(conversation.caller, request(2, payload)) == &conversation.service);
    BOOST_TEST(conversation.say(other, request(3)) == nullptr);
    conversation.hearBytes(conversation.service);
    BOOST_TEST(conversation.resume(conversation.caller) == nullptr);
    BOOST_TEST(conversation.caller.asInitiator.pendingRequests == 2U);
}

// One that stopped: its senders, and what they have for others, do not wait.
BOOST_FIXTURE_TEST_CASE(aRequestToAResponderThatWasGivenUpOnIsRefused, Conversation) {
    fill(service, threeQuarters);
    BOOST_TEST(say(caller, request(7)) == &service);
    giveUpOn(service);
    resumeAllAt(service);
    BOOST_TEST(!caller.isBlocked());
    BOOST_TEST(hear(caller) == "notice 7 status=14");
    BOOST_TEST(say(caller, request(8)) == nullptr);
    BOOST_TEST(hear(caller) == "notice 8 status=14");
    BOOST_TEST(service.sendQueue.bytes() == threeQuarters);
    BOOST_TEST(caller.asInitiator.pendingRequests == 0U);
}

BOOST_FIXTURE_TEST_CASE(whoSendsElsewhereDoesNotWait, Conversation) {
    Session& elsewhere = responder("elsewhere");
    fill(service, threeQuarters);
    Session& other = initiator();
    BOOST_TEST(say(other, request(7, "p", "elsewhere")) == nullptr);
    BOOST_TEST(!elsewhere.sendQueue.empty());
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
    BOOST_TEST(hear(quick) == "event 0 category=test identifier=event payload=news");
    BOOST_TEST(slow.sendQueue.bytes() > threeQuarters);
}

BOOST_FIXTURE_TEST_CASE(aSubscriberThatIsFullIsClosedAndTheOthersGetTheEvent, Conversation) {
    Session& full = subscriber("test");
    Session& quick = subscriber("test");
    fill(full, queueLimit);
    giveUpOn(full);
    BOOST_TEST(say(service, publish("news")) == nullptr);
    BOOST_TEST(closing(full) == "status 14: its send queue is full: it reads too slowly");
    BOOST_TEST(hear(quick) == "event 0 category=test identifier=event payload=news");
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

// A service within the broker.
BOOST_AUTO_TEST_SUITE(embedded)

struct Embedded : ScriptedBroker {
    Embedded() : ScriptedBroker(smallLimits()) { router.embed("test", service); }

    std::vector<std::string> unknown;
    kavri::broker::HostedTestService service{
        [this](std::string_view identifier) { unknown.emplace_back(identifier); }};
    Session& caller = initiator();

    Session* command(Session& from, std::uint64_t token, std::string_view identifier,
                     std::string_view payload = "p") {
        return say(from, makeFrame(FrameType::request, token, {"test", identifier, "u", payload}));
    }
};

BOOST_FIXTURE_TEST_CASE(itAnswersAtOnce, Embedded) {
    command(caller, 7, "echo", "hi");
    BOOST_TEST(hear(caller) == "response 7 category=test identifier=echo uuid=u payload=hi");
    BOOST_TEST(caller.asInitiator.pendingRequests == 0U);
}

BOOST_FIXTURE_TEST_CASE(anEmptyAnswerHasAPayload, Embedded) {
    command(caller, 7, "echo", "");
    command(caller, 8, "nonsense");
    BOOST_TEST(hear(caller) ==
               "response 7 category=test identifier=echo uuid=u payload=\n"
               "response 8 category=test identifier=nonsense uuid=u payload=");
    BOOST_TEST(unknown == std::vector<std::string>{"nonsense"}, boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(aCommandWithoutAnswerIsCompleted, Embedded) {
    command(caller, 7, "inc_repeat_count");
    command(caller, 8, "get_repeat_count");
    BOOST_TEST(hear(caller) ==
               "completion 7\n"
               "response 8 category=test identifier=get_repeat_count uuid=u payload=1");
}

BOOST_FIXTURE_TEST_CASE(itsEventReachesTheSubscribersBeforeTheCompletion, Embedded) {
    Session& watcher = subscriber("test");
    say(caller, subscribe(1));
    command(caller, 7, "event", "news");
    BOOST_TEST(hear(watcher) == "event 0 category=test identifier=event payload=news");
    BOOST_TEST(hear(caller) ==
               "acknowledgement 1\n"
               "event 0 category=test identifier=event payload=news\n"
               "completion 7");
}

BOOST_FIXTURE_TEST_CASE(itsLargeEventIsHeldOnceForAll, Embedded) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    const std::string payload(20'000, 'e');
    command(caller, 7, "event", payload);
    iovec firstPiece{};
    iovec secondPiece{};
    BOOST_REQUIRE(first.sendQueue.gather(&firstPiece, 1) == 1U);
    BOOST_REQUIRE(second.sendQueue.gather(&secondPiece, 1) == 1U);
    BOOST_TEST(firstPiece.iov_base == secondPiece.iov_base);
    const std::string bytes = hearBytes(second);
    BOOST_TEST((framesIn(bytes).at(0)[Field::payload] == payload));
}

BOOST_FIXTURE_TEST_CASE(itsEventWaitsForASlowSubscriber, Embedded) {
    Session& slow = subscriber("test");
    slow.sendQueue.appendCopy(std::string(threeQuarters, 'f'));
    BOOST_TEST(command(caller, 7, "event", "news") == &slow);
    BOOST_TEST(hear(caller) == "");
    slow.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(hear(caller) == "completion 7");
    BOOST_TEST(hear(slow) == "event 0 category=test identifier=event payload=news");
}

// The request whose event waits is handled a second time.
BOOST_FIXTURE_TEST_CASE(itsRecordHasEachRequestOnce, Embedded) {
    const kavri::process::TemporaryFolder folder;
    service.recordTo(folder / "record");
    Session& slow = subscriber("test");
    slow.sendQueue.appendCopy(std::string(threeQuarters, 'f'));
    BOOST_TEST(command(caller, 7, "event", "news") == &slow);
    slow.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    Session& other = initiator();
    command(other, 8, "echo", "hi");
    std::ifstream file(folder / "record");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    BOOST_REQUIRE_EQUAL(lines.size(), 2U);
    BOOST_TEST(lines[0].find(R"("identifier":"event","uuid":"u","payload":"news"})") !=
               std::string::npos);
    BOOST_TEST(lines[1].find(R"("answer":{"category":"test","identifier":"echo","uuid":"u",)"
                             R"("payload":"hi"})") != std::string::npos);
    const auto connection = [](const std::string& line) { return line.substr(0, line.find(',')); };
    BOOST_TEST(connection(lines[0]) != connection(lines[1]));
}

BOOST_FIXTURE_TEST_CASE(nobodyElseMayServeItsCategory, Embedded) {
    Session& late = join("responder");
    say(late, registration(1));
    BOOST_TEST(hear(late) == "acknowledgement 1 status=15");
    say(late, publish("false news"));
    BOOST_TEST(notes.size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(itStaysWhenItsLastSubscriberLeaves, Embedded) {
    Session& watcher = subscriber("test");
    leave(watcher);
    command(caller, 7, "echo", "still here");
    BOOST_TEST(hear(caller) ==
               "response 7 category=test identifier=echo uuid=u payload=still here");
}

BOOST_AUTO_TEST_SUITE_END()
