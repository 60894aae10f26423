// Requests, responses and events through the C++ interface: what is received, what is
// thrown, and what becomes of objects that are moved.
#define BOOST_TEST_MODULE cppMessages

#include <boost/test/unit_test.hpp>
#include <vector>

#include "integration/cpp/cpp_pair.h"

using namespace kavri::tests;
using namespace std::chrono_literals;

BOOST_FIXTURE_TEST_SUITE(requests, CppPair)

BOOST_AUTO_TEST_CASE(aRequestReturnsItsResponse) {
    const std::string payload = "my payload";
    const kavri::Response response = initiator.request("test", "echo", payload);
    BOOST_TEST((response.category() == "test"));
    BOOST_TEST((response.identifier() == "echo"));
    BOOST_TEST((response.payload() == payload));
    BOOST_TEST((initiator.tryRequest("test", "echo", "another", patience)->payload() == "another"));
}

BOOST_AUTO_TEST_CASE(aRequestThatFailsThrowsOrReturnsTheStatus) {
    constexpr auto noResponder = KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    BOOST_TEST(thrownBy([this] { initiator.request("nobody's", "do", ""); }) == noResponder);
    BOOST_TEST(initiator.tryRequest("nobody's", "do", "").status() == noResponder);
    BOOST_TEST((initiator.request("test", "echo", "afterwards").payload() == "afterwards"));
}

BOOST_AUTO_TEST_CASE(aRequestWhoseTimeIsOverIsNoneOfTheNextOnes) {
    BOOST_TEST(thrownBy([this] { initiator.request("work", "do", "", 1ms); }) ==
               KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    responder.answer(takeRequest(), "late");
    const kavri::Response next = initiator.request("test", "echo", "next");
    BOOST_TEST((next.payload() == "next"));
    BOOST_TEST(!initiator.receive(0ms));
}

// The failure of the first is received before that of the second.
BOOST_AUTO_TEST_CASE(theFailureOfAnEarlierRequestIsNotTheLaterOnes) {
    BOOST_TEST(initiator.tryRequest("work", "do", "", 1ms).status() ==
               KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    (void)takeRequest();
    responder.close();
    // Then the broker has told the initiator, too.
    BOOST_REQUIRE(
        eventually([this] { return kavri::Responder::tryConnect("work", options()).hasValue(); }));
    BOOST_TEST(initiator.tryRequest("nobody's", "do", "").status() ==
               KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
}

BOOST_AUTO_TEST_CASE(aRequestIsRefusedWhileACallbackReceives) {
    initiator.onResponse([](const kavri::Response&) {});
    BOOST_TEST(initiator.tryRequest("test", "echo", "").status() == KAVRI_CORE_STATUS_IPC_FAILED);
}

BOOST_AUTO_TEST_CASE(sentAndReceivedSeparatelyEveryFieldArrives) {
    initiator.send("work", "do", "my uuid", "input");
    kavri::Request request = takeRequest();
    BOOST_TEST((request.category() == "work"));
    BOOST_TEST((request.identifier() == "do"));
    BOOST_TEST((request.uuid() == "my uuid"));
    BOOST_TEST((request.payload() == "input"));
    responder.answer(request.name(), "a", "b", request.uuid(), "output");
    const kavri::Response response = initiator.receive().value();
    BOOST_TEST((response.category() == "a"));
    BOOST_TEST((response.identifier() == "b"));
    BOOST_TEST((response.uuid() == "my uuid"));
    BOOST_TEST((response.payload() == "output"));
}

BOOST_AUTO_TEST_CASE(aResponseMayBeWithoutPayload) {
    initiator.send("work", "do", "1", "");
    responder.answer(takeRequest(), nullptr);
    BOOST_TEST(initiator.receive()->payload().isNull());
}

BOOST_AUTO_TEST_CASE(aRequestThatIsEndedHasNoResponse) {
    initiator.send("work", "do", "1", "");
    responder.endRequest(takeRequest().name());
    BOOST_TEST((initiator.request("test", "echo", "only").payload() == "only"));
    BOOST_TEST(initiator.tryReceive(0ms).status() == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(withNothingToReceiveThereIsNoMessage) {
    BOOST_TEST(!initiator.receive(0ms));
    BOOST_TEST(!initiator.receive(-1h));
    BOOST_TEST(initiator.tryReceive(1us).status() == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(!responder.receive(0ms));
    BOOST_TEST(responder.tryReceive(1us).status() == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(aReceiveWithoutLimitWaits) {
    std::string received;
    BlockedCall receive([&] { received = responder.receive()->uuid().str(); });
    BOOST_TEST(receive.sleeps());
    initiator.send("work", "do", "at last", "");
    receive.join();
    BOOST_TEST(received == "at last");
}

BOOST_AUTO_TEST_CASE(aReceiveThrowsWhatFailed) {
    initiator.send("nobody's", "do", "1", "");
    BOOST_TEST(thrownBy([this] { initiator.receive(); }) == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
    responder.onRequest([](const kavri::Request&) {});
    BOOST_TEST(thrownBy([this] { responder.receive(); }) == KAVRI_CORE_STATUS_IPC_FAILED);
}

BOOST_AUTO_TEST_CASE(aBatchIsSentInOrder) {
    const std::vector<kavri::Command> commands{{"test", "echo", "1", "first"},
                                               {"test", "echo", "2", "second"}};
    initiator.sendBatch(commands);
    BOOST_TEST((initiator.receive()->payload() == "first"));
    BOOST_TEST((initiator.receive()->payload() == "second"));
    initiator.sendBatch(std::vector<kavri::Command>{});
}

BOOST_AUTO_TEST_CASE(aBatchThatFailsSaysHowManyWereSent) {
    const std::string tooLarge(2'000'000, 'x');
    const std::array<kavri::Command, 3> commands{{{"test", "echo", "1", "first"},
                                                  {"test", "echo", "2", tooLarge.c_str()},
                                                  {"test", "echo", "3", "third"}}};
    BOOST_CHECK_EXCEPTION(
        initiator.sendBatch(commands), kavri::BatchError, [](const kavri::BatchError& error) {
            return error.status() == KAVRI_CORE_STATUS_IPC_TOO_LARGE && error.sent() == 1;
        });
    std::size_t sent = 7;
    BOOST_TEST(initiator.trySendBatch(commands, sent) == KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(sent == 1U);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(objects, CppPair)

BOOST_AUTO_TEST_CASE(aMovedObjectGoesOnAndTheOldOneRefuses) {
    constexpr auto refused = KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    kavri::Initiator moved(std::move(initiator));
    BOOST_TEST((moved.request("test", "echo", "moved").payload() == "moved"));
    // NOLINTBEGIN(bugprone-use-after-move)
    BOOST_TEST(!initiator.isOpen());
    BOOST_TEST(thrownBy([this] { initiator.send("test", "echo", "1", ""); }) == refused);
    BOOST_TEST(initiator.tryReceive().status() == refused);
    BOOST_TEST(initiator.tryRequest("test", "echo", "").status() == refused);
    BOOST_TEST(initiator.tryOnResponse([](const kavri::Response&) {}) == refused);
    BOOST_TEST(initiator.tryOnEvent([](const kavri::Event&) {}) == refused);
    BOOST_TEST(initiator.trySubscribe("work") == refused);
    BOOST_TEST(initiator.tryUnsubscribe("work") == refused);

    kavri::Responder movedResponder(std::move(responder));
    BOOST_TEST((movedResponder.category() == "work"));
    BOOST_TEST(responder.category().isNull());
    BOOST_TEST(responder.tryReceive().status() == refused);
    BOOST_TEST(responder.tryPublish("event", "") == refused);
    BOOST_TEST(responder.tryOnRequest([](const kavri::Request&) {}) == refused);
    BOOST_TEST(responder.tryAnswer({}, "a", "b", "c", "d") == refused);
    BOOST_TEST(responder.tryEndRequest({}) == refused);
    // NOLINTEND(bugprone-use-after-move)
}

BOOST_AUTO_TEST_CASE(anAssignmentEndsWhatWasThereBefore) {
    kavri::Responder other("other work", options());
    responder = std::move(other);
    BOOST_TEST((responder.category() == "other work"));
    BOOST_TEST(
        eventually([this] { return kavri::Responder::tryConnect("work", options()).hasValue(); }));
}

BOOST_AUTO_TEST_CASE(anObjectIsAssignedToItself) {
    kavri::Initiator& same = initiator;
    initiator = std::move(same);
    BOOST_TEST((initiator.request("test", "echo", "still").payload() == "still"));
}

BOOST_AUTO_TEST_CASE(aCategoryThatIsServedIsTaken) {
    BOOST_TEST(thrownBy([this] { kavri::Responder("work", options()); }) ==
               KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN);
    BOOST_TEST(kavri::Responder::tryConnect("work", options()).status() ==
               KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN);
}

BOOST_AUTO_TEST_CASE(aClosedObjectRefuses) {
    responder.close();
    responder.close();
    BOOST_TEST(!responder.isOpen());
    BOOST_TEST(responder.tryReceive().status() == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
}

BOOST_AUTO_TEST_CASE(theHandleIsForTheCFunctions) {
    BOOST_TEST(kavri_core_ipc_initiator_command_send(initiator.handle(), "work", "do", "1", "") ==
               good);
    BOOST_TEST(kavri_core_ipc_responder_request_end(responder.handle(), takeRequest().name()) ==
               good);
}

BOOST_AUTO_TEST_CASE(aTimeThatIsTooLongForTheOptionsIsCut) {
    kavri::Options longest = options();
    longest.connectTimeout = std::chrono::milliseconds::max();
    longest.sendTimeout = std::chrono::milliseconds::max();
    kavri::Initiator other(longest);
    BOOST_TEST((other.request("test", "echo", "in time").payload() == "in time"));
}

BOOST_AUTO_TEST_SUITE_END()
