// Writes that are gathered while a callback runs: what it sends leaves in order, and before
// anybody waits for it.
#define BOOST_TEST_MODULE gathering

#include <algorithm>
#include <array>
#include <boost/test/unit_test.hpp>
#include <optional>

#include "support/action.h"
#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

// A responder whose requests arrive in one order, and an initiator that gathers.
struct Gathering : WithBroker {
    kavri_core_ipc_options chosen = [] {
        kavri_core_ipc_options options{};
        options.gatherWrites = 1;
        return options;
    }();
    Responder responder{address, "order"};
    Inbox arrived;
    Initiator initiator{address, chosen};

    Gathering() { requireSuccess(responder.onRequest(Inbox::request, &arrived), "no callback"); }

    kavri_core_status ask(const std::string& uuid, std::size_t payloadBytes = 1) {
        return initiator.send("order", "command", uuid, std::string(payloadBytes, 'x'));
    }
    kavri_core_status askBatch(const std::string& first, const std::string& second) {
        const std::array<kavri_core_ipc_command, 2> commands{
            {{"order", "command", first.c_str(), ""}, {"order", "command", second.c_str(), ""}}};
        std::size_t sent = 0;
        return kavri_core_ipc_initiator_command_send_batch(initiator.get(), commands.data(),
                                                           commands.size(), &sent);
    }
    // Has the callback do this.
    void within(Action& action) {
        BOOST_TEST(initiator.onResponse(Action::response, &action) == good);
        BOOST_TEST(initiator.echo("0") == good);
    }
};

// A responder that gathers, answers within its callback, and ends there.
struct LastAnswer {
    Responder responder;

    static void answerAndEnd(kavri_core_ipc_request request, char** category, char** identifier,
                             char** uuid, char** payload, void* context) {
        Message message(good, {*category, *identifier, *uuid, *payload});
        message.request = request;
        auto& self = *static_cast<LastAnswer*>(context);
        self.responder.answer(message, "last");
        self.responder.end();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(whatACallbackSendsLeavesInTheOrderOfItsCalls, Gathering) {
    std::vector<kavri_core_status> statuses;
    Action action([&] {
        statuses = {ask("0"), ask("1"), askBatch("2", "3"), ask("4"), ask("5", 40000), ask("6")};
        statuses.push_back(initiator.subscribe("order"));
        statuses.push_back(ask("7"));
    });
    within(action);
    BOOST_TEST(arrived.waitFor(8));
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(arrived.uuids() == numbers(8), boost::test_tools::per_element());
    BOOST_TEST(std::ranges::count(statuses, good) == 8);
    BOOST_TEST(initiator.onResponse(nullptr, nullptr) == good);
}

BOOST_FIXTURE_TEST_CASE(anotherThreadSendsBehindWhatTheCallbackHasSent, Gathering) {
    kavri_core_status status = KAVRI_CORE_STATUS_IPC_FAILED;
    kavri_core_status otherStatus = KAVRI_CORE_STATUS_IPC_FAILED;
    bool haveArrived = false;
    Action action([&] {
        status = ask("0");
        std::thread([&] { otherStatus = ask("1"); }).join();
        haveArrived = arrived.waitFor(2);  // although this call has not ended
    });
    within(action);
    BOOST_TEST(action.waitForEnd());
    BOOST_TEST(status == good);
    BOOST_TEST(otherStatus == good);
    BOOST_TEST(haveArrived);
    BOOST_TEST(arrived.uuids() == numbers(2), boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(aCallbackReceivesTheAnswerToWhatItHasSent, Gathering) {
    std::optional<Message> answer;
    Action action([&] {
        initiator.echo("mine");
        answer.emplace(initiator.receive());
    });
    BOOST_TEST(initiator.onEvent(Action::event, &action) == good);
    BOOST_TEST(initiator.subscribe("order") == good);
    BOOST_TEST(responder.publish("order", "event", "") == good);
    BOOST_REQUIRE(action.waitForEnd());
    BOOST_TEST(answer->status == good);
    BOOST_TEST(answer->uuid.value_or("none") == "mine");
}

BOOST_FIXTURE_TEST_CASE(whatWasGatheredLeavesBeforeTheEnd, Gathering) {
    LastAnswer last{{address, "last", chosen}};
    BOOST_TEST(last.responder.onRequest(LastAnswer::answerAndEnd, &last) == good);
    BOOST_TEST(initiator.send("last", "command") == good);
    const Message answer = initiator.receive();
    BOOST_TEST(answer.status == good);
    BOOST_TEST(answer.payload.value_or("none") == "last");
}
