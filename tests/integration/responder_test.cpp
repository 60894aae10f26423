// The responder: requests polled and by callback, every way to answer one, and
// who may serve a category.
#define BOOST_TEST_MODULE responder

#include <boost/test/unit_test.hpp>

#include "support/with_broker.h"
#include "wire/limits.h"

using namespace kavri::tests;
using kavri::wire::fieldLimitBytes;
using kavri::wire::mebibyte;
using Clock = std::chrono::steady_clock;

namespace {

// Without the test service.
struct Setting : WithBroker {
    Setting() : WithBroker({.testService = false}) {}
};

struct Pair : Setting {
    Responder responder{address, "work"};
    Initiator initiator{address};

    // Sends a request and takes it at the other end.
    Message request(const std::string& uuid = "0") {
        requireSuccess(initiator.send("work", "do", uuid, "input"), "not sent");
        Message request = responder.receive();
        BOOST_TEST((request.uuid == uuid));
        return request;
    }
    // That nothing is on its way to the initiator any more.
    void expectSilence() {
        BOOST_TEST(responder.answer(request("last"), "last") == good);
        BOOST_TEST((initiator.receive().uuid == "last"));
        BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    }
};

kavri_core_status statusOf(const std::string& address, const char* category) {
    return initStatus(optionsFor(address), category);
}

// Answers each request with its own payload.
struct Server {
    kavri_core_ipc_responder* responder = nullptr;
    std::atomic<bool> ended{false};

    static void answer(kavri_core_ipc_request request, char** category, char** identifier,
                       char** uuid, char** payload, void* context) {
        const auto& self = *static_cast<Server*>(context);
        kavri_core_ipc_responder_response_send(self.responder, request, *category, *identifier,
                                               *uuid, *payload);
        for (char** string : {category, identifier, uuid, payload}) {
            std::free(*string);
        }
    }
    static void endItself(kavri_core_ipc_request request, char** category, char** identifier,
                          char** uuid, char** payload, void* context) {
        answer(request, category, identifier, uuid, payload, context);
        auto& self = *static_cast<Server*>(context);
        self.ended = kavri_core_ipc_responder_deinit(self.responder) == good;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(arguments, Pair)

BOOST_AUTO_TEST_CASE(nullIsRefused) {
    constexpr auto refused = KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    kavri_core_ipc_responder* none = nullptr;
    const kavri_core_ipc_request name{};
    Inbox inbox;
    BOOST_TEST(kavri_core_ipc_responder_init(nullptr, nullptr, "x", nullptr) == refused);
    BOOST_TEST(statusOf(address, nullptr) == refused);
    BOOST_TEST(kavri_core_ipc_responder_deinit(none) == refused);
    BOOST_TEST(kavri_core_ipc_responder_request_receive_callback(none, Inbox::request, &inbox) ==
               refused);
    BOOST_TEST(kavri_core_ipc_responder_response_send(none, name, "a", "b", "c", "d") == refused);
    BOOST_TEST(kavri_core_ipc_responder_request_end(none, name) == refused);
    BOOST_TEST(kavri_core_ipc_responder_event_publish(none, "work", "b", "c") == refused);
    for (std::size_t missing = 0; missing < 3; ++missing) {
        std::array<const char*, 3> fields = {"work", "identifier", "third"};
        fields[missing] = nullptr;
        BOOST_TEST(kavri_core_ipc_responder_response_send(responder.get(), name, fields[0],
                                                          fields[1], fields[2],
                                                          "payload") == refused);
        BOOST_TEST(kavri_core_ipc_responder_event_publish(responder.get(), fields[0], fields[1],
                                                          fields[2]) == refused);
    }
    int context = 0;
    BOOST_TEST(responder.onRequest(nullptr, &context) == refused);
}

BOOST_AUTO_TEST_CASE(aNullVariableIsRefusedAndTheRequestStays) {
    initiator.send("work", "do", "kept");
    for (std::size_t missing = 0; missing < 6; ++missing) {
        Strings strings;
        kavri_core_ipc_request request{};
        const std::array<char**, 4> variables = {missing == 2 ? nullptr : &strings.category,
                                                 missing == 3 ? nullptr : &strings.identifier,
                                                 missing == 4 ? nullptr : &strings.uuid,
                                                 missing == 5 ? nullptr : &strings.payload};
        BOOST_TEST(kavri_core_ipc_responder_request_receive(
                       missing == 0 ? nullptr : responder.get(), patienceMs,
                       missing == 1 ? nullptr : &request, variables[0], variables[1], variables[2],
                       variables[3]) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
        BOOST_TEST(strings.areUntouched());
    }
    BOOST_TEST(responder.receive(-2).status == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST((responder.receive().uuid == "kept"));
}

BOOST_AUTO_TEST_CASE(aCategoryThatCannotBeServedIsRefused) {
    BOOST_TEST(statusOf(address, "") == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST(statusOf(address, std::string(fieldLimitBytes + 1, 'x').c_str()) ==
               KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(statusOf(address, std::string(fieldLimitBytes, 'x').c_str()) == good);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(requests, Pair)

BOOST_AUTO_TEST_CASE(aPolledRequestHasAllFourFieldsAndSoHasItsAnswer) {
    initiator.send("work", "do", "my uuid", "input");
    const Message request = responder.receive(-1);
    BOOST_TEST(request.status == good);
    BOOST_TEST(request.text() == "work do my uuid input");
    BOOST_TEST(kavri_core_ipc_responder_response_send(responder.get(), request.request, "a", "b",
                                                      "my uuid", "output") == good);
    BOOST_TEST(initiator.receive().text() == "a b my uuid output");
}

BOOST_AUTO_TEST_CASE(aRequestWithoutWaitingIsNotThere) {
    const Message none = responder.receive(0);
    BOOST_TEST(none.status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(!none.payload.has_value());
    const auto begin = Clock::now();
    BOOST_TEST(responder.receive(100).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST((Clock::now() - begin >= std::chrono::milliseconds(100)));
}

BOOST_AUTO_TEST_CASE(aBlockedReceiveTakesTheRequest) {
    BlockedReceive receive(responder);
    initiator.send("work", "do", "at last");
    BOOST_TEST((receive.result().uuid == "at last"));
}

BOOST_AUTO_TEST_CASE(requestsAndAnswersKeepTheirOrder) {
    for (const std::string& uuid : numbers(1000)) {
        initiator.send("work", "do", uuid);
    }
    std::vector<std::string> requested;
    for (int i = 0; i < 1000; ++i) {
        const Message request = responder.receive();
        requested.push_back(request.uuid.value_or("none"));
        responder.answer(request, "done");
    }
    BOOST_TEST((requested == numbers(1000)));
    BOOST_TEST((receiveUuids(initiator, 1000) == numbers(1000)));
}

BOOST_AUTO_TEST_CASE(aCallbackServesTenThousandRequests) {
    Server server{responder.get()};
    BOOST_TEST(responder.onRequest(Server::answer, &server) == good);
    Inbox inbox;
    initiator.onResponse(Inbox::response, &inbox);
    for (const std::string& uuid : numbers(10'000)) {
        initiator.send("work", "do", uuid);
    }
    BOOST_TEST(inbox.waitFor(10'000));
    BOOST_TEST((inbox.uuids() == numbers(10'000)));
}

BOOST_AUTO_TEST_CASE(receiveFailsWhileCallbackInstalled) {
    Inbox inbox;
    responder.onRequest(Inbox::request, &inbox);
    for (const int timeoutMs : {-1, 0, 100}) {
        BOOST_TEST(responder.receive(timeoutMs).status == KAVRI_CORE_STATUS_IPC_FAILED);
    }
    initiator.send("work", "do", "0");
    BOOST_TEST(inbox.waitFor(1));
    BOOST_TEST(responder.onRequest(nullptr, nullptr) == good);
    initiator.send("work", "do", "1");
    BOOST_TEST((responder.receive().uuid == "1"));
    BOOST_TEST(inbox.count() == 1U);
}

BOOST_AUTO_TEST_CASE(aRequestIsAnsweredLaterFromAnotherThread) {
    Inbox inbox;
    responder.onRequest(Inbox::request, &inbox);
    initiator.send("work", "do", "0");
    BOOST_REQUIRE(inbox.waitFor(1));
    responder.answer(inbox.messages().front(), "later");
    BOOST_TEST((initiator.receive().payload == "later"));
}

BOOST_AUTO_TEST_CASE(aCallbackEndsItsResponder) {
    Server server{responder.release()};
    kavri_core_ipc_responder_request_receive_callback(server.responder, Server::endItself, &server);
    initiator.send("work", "do", "0", "answered before the end");
    BOOST_TEST((initiator.receive().payload == "answered before the end"));
    BOOST_TEST(eventually([&] { return server.ended.load(); }));
    // The category is free as soon as the thread has left the callback.
    BOOST_TEST(eventually([&] { return statusOf(address, "work") == good; }));
}

BOOST_AUTO_TEST_CASE(aLargeRequestAndItsLargeAnswerArriveAsSent) {
    const std::string input(mebibyte, 'i');
    const std::string output(mebibyte, 'o');
    const std::string longest(fieldLimitBytes, 'x');
    initiator.send("work", longest, longest, input);
    const Message request = responder.receive();
    BOOST_TEST((request.identifier == longest));
    BOOST_TEST((request.payload == input));
    BOOST_TEST(responder.answer(request, output.c_str()) == good);
    const Message response = initiator.receive();
    BOOST_TEST((response.uuid == longest));
    BOOST_TEST((response.payload == output));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(outcomes, Pair)

BOOST_AUTO_TEST_CASE(aResponseWithoutPayloadIsNullInAReceive) {
    BOOST_TEST(responder.answer(request(), nullptr) == good);
    const Message response = initiator.receive();
    BOOST_TEST(response.status == good);
    BOOST_TEST((response.uuid == "0"));
    BOOST_TEST(!response.payload.has_value());
}

BOOST_AUTO_TEST_CASE(aResponseWithoutPayloadIsNullInACallback) {
    Inbox inbox;
    initiator.onResponse(Inbox::response, &inbox);
    responder.answer(request("without"), nullptr);
    responder.answer(request("empty"), "");
    BOOST_REQUIRE(inbox.waitFor(2));
    BOOST_TEST((inbox.messages()[0].uuid == "without"));
    BOOST_TEST(!inbox.messages()[0].payload.has_value());
    BOOST_TEST((inbox.messages()[1].payload == ""));
}

BOOST_AUTO_TEST_CASE(aReceiveWithALimitWaitsForNothingAfterTheEndWithoutAnAnswer) {
    BOOST_TEST(responder.finish(request()) == good);
    BOOST_TEST(initiator.receive(100).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(aReceiveWithoutLimitWaitsForWhatAnotherThreadSendsLater) {
    BOOST_TEST(responder.finish(request()) == good);
    BlockedReceive receive(initiator);
    // The end of another request, while it waits, does not end it either.
    BOOST_TEST(responder.finish(request("ended")) == good);
    const Message later = request("later");
    BOOST_TEST(!receive.hasReturned());
    BOOST_TEST(responder.answer(later, "after all") == good);
    BOOST_TEST((receive.result().uuid == "later"));
}

BOOST_AUTO_TEST_CASE(anEndedRequestHasNoAnswer) {
    BOOST_TEST(responder.finish(request()) == good);
    expectSilence();
}

BOOST_AUTO_TEST_CASE(aSecondAnswerIsDroppedAndLogged) {
    const Message answered = request();
    BOOST_TEST(responder.answer(answered, "first") == good);
    BOOST_TEST(responder.answer(answered, "second") == good);
    BOOST_TEST((initiator.receive().payload == "first"));
    expectSilence();
    BOOST_TEST(broker.logs("answered a request that is not pending"));
}

BOOST_AUTO_TEST_CASE(aTooLargeAnswerLeavesTheRequestOpen) {
    const Message open = request();
    const std::string above(mebibyte + 1, 'x');
    BOOST_TEST(responder.answer(open, above.c_str()) == KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(responder.publish("work", "event", above) == KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(responder.answer(open, "short") == good);
    BOOST_TEST((initiator.receive().payload == "short"));
}

BOOST_AUTO_TEST_CASE(aRequestForACategoryNobodyServesHasNoResponder) {
    BOOST_TEST(initiator.send("nobody's", "do") == good);
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(theEndOfAResponderFailsEachRequestInItsHandOnce) {
    for (const std::string& uuid : numbers(3)) {
        request(uuid);
    }
    initiator.send("work", "do", "not taken");
    responder.end();
    for (int i = 0; i < 4; ++i) {
        BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
    }
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(anEventOfACategoryNotServedIsRefused) {
    BOOST_TEST(responder.publish("other", "event", "x") == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST(responder.publish("", "event", "x") == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST(responder.publish("work", "event", "x") == good);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(categories, Setting)

BOOST_AUTO_TEST_CASE(aCategoryIsServedByOneResponderAtATime) {
    Responder first(address, "work");
    BOOST_TEST(statusOf(address, "work") == KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN);
    BOOST_TEST(statusOf(address, "other work") == good);
    first.end();
    BOOST_TEST(eventually([this] { return statusOf(address, "work") == good; }));
}

BOOST_AUTO_TEST_CASE(requestsAboveTheLimitOfAnInitiatorAreOverloaded) {
    const std::string limited = folder / "limited.sock";
    BrokerProcess small(limited, {.config = "[limits]\nopen_requests_per_initiator = 2"});
    Responder responder(limited, "work");
    Initiator greedy(limited);
    Initiator modest(limited);
    for (const std::string& uuid : numbers(3)) {
        greedy.send("work", "do", uuid);
    }
    BOOST_TEST(greedy.receive().status == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    modest.send("work", "do", "modest");
    for (int i = 0; i < 3; ++i) {
        responder.answer(responder.receive(), "done");
    }
    BOOST_TEST((modest.receive().uuid == "modest"));
    BOOST_TEST((greedy.receive().uuid == "0"));
    BOOST_TEST((greedy.receive().uuid == "1"));
}

BOOST_AUTO_TEST_SUITE_END()
