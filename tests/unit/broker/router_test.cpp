// Where requests and their answers go, who may serve a category, and what is left of
// those who leave.
#define BOOST_TEST_MODULE router

#include "broker/routing/router.h"

#include <boost/test/unit_test.hpp>

#include "support/conversation.h"

using namespace kavri::tests;
using kavri::broker::Policy;

namespace {

Policy onlySomeUserAt(const std::string& category) {
    Policy policy;
    policy.categories[category] = {{false, {someUser}}, {false, {someUser}}, {false, {someUser}}};
    return policy;
}

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

BOOST_FIXTURE_TEST_CASE(oneTokenMayBeUsedForSeveralRequests, Conversation) {
    const auto first = ask(7);
    const auto second = ask(7);
    say(service, response(second, "second"));
    say(service, response(first, "first"));
    BOOST_TEST(hear(caller) == "response 7" + fields + "second\nresponse 7" + fields + "first");
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
    BOOST_TEST(hear(caller) == event("from the next"));
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
