// The comparison of what a library made of a case with what reached the service: both as
// they are when all is well, and what is said when one thing differs.
#define BOOST_TEST_MODULE serviceAgreement

#include "conformance/cases/service_agreement.h"

#include <boost/test/unit_test.hpp>

using namespace kavri::conformance;

namespace {

using Lines = std::vector<std::string>;

Message message(const std::string& identifier, const std::string& uuid,
                const std::string& payload) {
    return {"test", identifier, uuid, payload};
}

// Two echoes and a request without an answer, in between a request for an event.
struct Agreeing {
    CaseTraffic traffic;
    std::vector<ServedRequest> served;

    Agreeing() {
        serve(message("echo", "0", "a"), message("echo", "0", "a"), std::nullopt);
        serve(message("event", "0", "news"), std::nullopt,
              Message{"test", "event", std::nullopt, "news"});
        serve(message("echo", "1", "b"), message("echo", "1", "b"), std::nullopt);
        serve(message("inc_repeat_count", "0", ""), std::nullopt, std::nullopt);
    }

    void serve(const Message& request, const std::optional<Message>& answer,
               const std::optional<Message>& event) {
        traffic.requests.push_back(request);
        ServedRequest one;
        one.connection = "1";
        one.request = request;
        one.answer = answer;
        one.event = event;
        served.push_back(one);
        if (answer) {
            traffic.responses.push_back(*answer);
        }
        if (event) {
            traffic.events.push_back(*event);
        }
    }

    Lines lines() const { return disagreements(traffic, served); }
    std::string line() const {
        const Lines all = lines();
        BOOST_REQUIRE_EQUAL(all.size(), 1U);
        return all.front();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(bothAgree, Agreeing) {
    BOOST_TEST(lines().empty());
}

BOOST_FIXTURE_TEST_CASE(anAnswerNeedNotBeReceived, Agreeing) {
    traffic.responses.pop_back();
    traffic.events.clear();
    BOOST_TEST(lines().empty());
}

BOOST_FIXTURE_TEST_CASE(nothingArrived, Agreeing) {
    served.clear();
    const Lines all = lines();
    BOOST_REQUIRE_EQUAL(all.size(), 3U);
    BOOST_TEST(
        all[0] ==
        "requests never reached the service: 4 were sent, its record holds 0; request 1 was "
        R"({"category":"test","identifier":"echo","uuid":"0","payload":"a"}, and the record )"
        "has none");
    BOOST_TEST(all[1] ==
               R"(response 1 was {"category":"test","identifier":"echo","uuid":"0","payload":"a"})"
               ", and the service answered nothing");
    BOOST_TEST(all[2] ==
               "the service never published the event "
               R"({"category":"test","identifier":"event","payload":"news"})");
}

BOOST_FIXTURE_TEST_CASE(theLastRequestIsLost, Agreeing) {
    served.pop_back();
    BOOST_TEST(line().starts_with(
        "requests never reached the service: 4 were sent, its record holds 3; request 4 was "));
}

BOOST_FIXTURE_TEST_CASE(aRequestArrivesTwice, Agreeing) {
    served.push_back(served.back());
    BOOST_TEST(
        line().starts_with("the service got requests that were not sent: 4 were sent, its "
                           "record holds 5; request 5 was none, and the record has "));
}

BOOST_FIXTURE_TEST_CASE(aRequestIsChanged, Agreeing) {
    served[3].request.payload = "!";
    BOOST_TEST(line() ==
               "the service got other requests than were sent: 4 were sent, its record holds 4; "
               R"(request 4 was {"category":"test","identifier":"inc_repeat_count","uuid":"0",)"
               R"("payload":""}, and the record has {"category":"test",)"
               R"("identifier":"inc_repeat_count","uuid":"0","payload":"!"})");
}

BOOST_FIXTURE_TEST_CASE(requestsAreSwapped, Agreeing) {
    std::swap(served[1], served[3]);
    BOOST_TEST(line().starts_with("the service got other requests than were sent"));
}

BOOST_FIXTURE_TEST_CASE(requestsComeOverTwoConnections, Agreeing) {
    served[2].connection = "2";
    served[3].connection = "2";
    BOOST_TEST(line() ==
               "request 3 came over another connection than the one before; an initiator has one");
}

BOOST_FIXTURE_TEST_CASE(connectionsMayBeUnknown, Agreeing) {
    for (ServedRequest& each : served) {
        each.connection.clear();
    }
    BOOST_TEST(lines().empty());
}

BOOST_FIXTURE_TEST_CASE(aResponseIsNotTheAnswer, Agreeing) {
    traffic.responses[1].identifier = "answer";
    BOOST_TEST(line().starts_with("response 2 was "));
}

BOOST_FIXTURE_TEST_CASE(aResponseIsDeliveredTwice, Agreeing) {
    traffic.responses.push_back(traffic.responses.back());
    BOOST_TEST(line().ends_with("and the service answered nothing"));
}

BOOST_FIXTURE_TEST_CASE(anEventIsDeliveredTwice, Agreeing) {
    traffic.events.push_back(traffic.events.back());
    BOOST_TEST(line().starts_with("the service never published the event "));
}

BOOST_FIXTURE_TEST_CASE(theProbesEchoComesLastOverItsOwnConnection, Agreeing) {
    traffic.hasProbeEcho = true;
    BOOST_TEST(line().starts_with("requests never reached the service: 5 were sent"));
    ServedRequest echo;
    echo.connection = "2";
    echo.request = echo.answer.emplace(message("echo", "peer", "peer"));
    served.push_back(echo);
    BOOST_TEST(lines().empty());
}

// What was answered has been served; only requests behind the last answer may still come.
BOOST_FIXTURE_TEST_CASE(requestsBehindTheLastAnswerMayBeUnderWay, Agreeing) {
    BOOST_TEST(!traffic.mayBeUnderWay(4));
    BOOST_TEST(traffic.mayBeUnderWay(3));
    BOOST_TEST(traffic.mayBeUnderWay(2));
    BOOST_TEST(!traffic.mayBeUnderWay(1));
    traffic.hasProbeEcho = true;
    BOOST_TEST(traffic.mayBeUnderWay(4));
}

BOOST_AUTO_TEST_CASE(theTrafficOfACaseIsWhatSucceeded) {
    CaseReport report;
    const auto call = [&report](CallReport::Kind kind, const std::string& function,
                                const nlohmann::json& arguments, const nlohmann::json& result) {
        CallReport one;
        one.kind = kind;
        one.function = function;
        one.arguments = arguments;
        one.result = result;
        one.endNs = 1;
        report.calls.push_back(one);
    };
    const nlohmann::json texts = {
        {"targetCategory", "test"}, {"targetIdentifier", "echo"}, {"uuid", "0"}, {"payload", "a"}};
    nlohmann::json received = texts;
    received["status"] = 0;
    const auto made = CallReport::Kind::call;
    call(made, "kavri_core_ipc_initiator_command_send", texts, {{"status", 0}});
    call(made, "kavri_core_ipc_initiator_command_send", texts, {{"status", 13}});
    call(made, "kavri_core_ipc_initiator_response_receive", {{"timeout", 0}}, {{"status", 5}});
    call(made, "kavri_core_ipc_initiator_response_receive", {{"timeout", 0}}, received);
    call(CallReport::Kind::delivery, "response", texts, nlohmann::json::object());
    call(CallReport::Kind::delivery, "event",
         {{"targetCategory", "test"}, {"targetIdentifier", "event"}, {"payload", "a"}},
         nlohmann::json::object());
    const CaseTraffic traffic = trafficOf(report, true);
    BOOST_TEST((traffic.requests == std::vector{message("echo", "0", "a")}));
    BOOST_TEST(
        (traffic.responses == std::vector{message("echo", "0", "a"), message("echo", "0", "a")}));
    BOOST_TEST((traffic.events == std::vector{Message{"test", "event", std::nullopt, "a"}}));
    BOOST_TEST(traffic.hasProbeEcho);
}

BOOST_AUTO_TEST_CASE(aLineOfTheRecordIsRead) {
    const auto served = parseServedRequest(
        R"({"connection":"x","process":7,"request":{"category":"c","identifier":"i","uuid":"u",)"
        R"("payload":"p"},"answer":{"category":"c","identifier":"i","uuid":"u","payload":null},)"
        R"("event":null,"more":1})");
    BOOST_REQUIRE(served);
    BOOST_TEST(served->connection == R"("x")");
    BOOST_TEST((served->process == 7));
    BOOST_TEST((served->request == Message{"c", "i", "u", "p"}));
    BOOST_REQUIRE(served->answer);
    BOOST_TEST((*served->answer == Message{"c", "i", "u", std::nullopt}));
    BOOST_TEST(!served->event);
}

BOOST_AUTO_TEST_CASE(aLineOfAnotherFormIsNot) {
    for (const char* line : {"", "7", "[]", "{}", "{\"request\":null}", "{\"request\":"}) {
        BOOST_TEST(!parseServedRequest(line), line);
    }
}
