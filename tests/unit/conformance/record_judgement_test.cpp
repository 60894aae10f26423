// What a record shows to be against the public headers, on records made by hand.
#define BOOST_TEST_MODULE recordJudgement

#include "conformance/cases/record_judgement.h"

#include <boost/test/unit_test.hpp>

using kavri::conformance::CallReport;
using kavri::conformance::CaseReport;
using kavri::conformance::judgeRecord;
using kavri::conformance::WarningReport;

namespace {

using Json = nlohmann::json;
using Rules = std::vector<std::string>;

constexpr int caller = 1;
constexpr int librarys = 2;

const std::string deinit = "kavri_core_ipc_deinit";
const std::string receive = "kavri_core_ipc_initiator_response_receive";
const std::string responses = "kavri_core_ipc_initiator_response_receive_callback";
const std::string events = "kavri_core_ipc_initiator_event_receive_callback";
const std::string subscribe = "kavri_core_ipc_initiator_event_subscribe";

// One case; each call and delivery lies behind the one before unless its times are given.
struct Record {
    CaseReport report;
    std::int64_t nowNs = 0;

    CallReport& add(CallReport::Kind kind, const std::string& function, int thread,
                    const Json& arguments, const Json& result) {
        CallReport call;
        call.kind = kind;
        call.function = function;
        call.thread = thread;
        call.beginNs = nowNs += 10;
        call.endNs = nowNs += 10;
        call.arguments = arguments;
        call.result = result;
        return report.calls.emplace_back(call);
    }
    CallReport& call(const std::string& function, int status = 0, Json arguments = Json::object(),
                     Json result = Json::object()) {
        if (function.starts_with("kavri_core_ipc_")) {
            arguments.emplace("initiator", 1);
        }
        result["status"] = status;
        return add(CallReport::Kind::call, function, caller, arguments, result);
    }
    CallReport& deliver(const std::string& callback, Json arguments = Json::object()) {
        arguments.emplace("initiator", 1);
        return add(CallReport::Kind::delivery, callback, librarys, arguments, Json::object());
    }
    void install(const std::string& function) { call(function, 0, {{"callback", "installed"}}); }
    CallReport& remove(const std::string& function) {
        return call(function, 0, {{"callback", nullptr}});
    }
    void up() { call("kavri_core_init"); }

    Rules broken() const {
        Rules rules;
        for (const WarningReport& warning : judgeRecord(report)) {
            BOOST_TEST(!warning.sentence.empty());
            BOOST_TEST(!warning.header.empty());
            rules.push_back(warning.rule);
        }
        return rules;
    }
    void checkBroken(const Rules& expected) const {
        BOOST_TEST(broken() == expected, boost::test_tools::per_element());
    }
};

const Json event = {{"targetCategory", "test"}, {"targetIdentifier", "e"}, {"payload", ""}};
const Json response = {
    {"targetCategory", "test"}, {"targetIdentifier", "r"}, {"uuid", "1"}, {"payload", nullptr}};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(recordJudgement, Record)

BOOST_AUTO_TEST_CASE(aRecordAsItShouldBeHasNoWarning) {
    up();
    call("kavri_core_logging_init", 0, Json::object(), {{"handle", true}});
    call("kavri_core_ipc_initiator_init", 0, Json::object(), {{"handle", true}});
    call(subscribe, 0, {{"category", "test"}});
    install(responses);
    install(events);
    deliver("response", response);
    deliver("event", event);
    call(receive, 4);
    remove(events);
    remove(responses);
    call(receive, 5);
    call(receive, 0, Json::object(), response);
    call(deinit);
    call("kavri_core_logging_deinit", 0, {{"cookie", "opened"}});
    call("kavri_core_deinit");
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(twoCallbacksAtOnceAreOneTooMany) {
    up();
    const std::int64_t firstEndsNs = *deliver("response", response).endNs;
    CallReport& second = deliver("response", response);
    second.beginNs = firstEndsNs - 1;
    checkBroken({"one-callback-at-a-time"});
    second.beginNs = firstEndsNs;
    checkBroken({});
    second.beginNs = firstEndsNs - 1;
    second.arguments["initiator"] = 2;  // has callbacks of its own
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(aCallbackWithinACallbackIsOneTooMany) {
    up();
    deliver("response", response).endNs.reset();
    deliver("response", response);
    checkBroken({"one-callback-at-a-time"});
}

BOOST_AUTO_TEST_CASE(whatHappensAgainIsCounted) {
    up();
    deliver("response", response).endNs.reset();
    deliver("response", response);
    deliver("response", response);
    const std::vector<WarningReport> warnings = judgeRecord(report);
    BOOST_REQUIRE(warnings.size() == 1U);
    BOOST_TEST(warnings[0].times == 2U);
    BOOST_TEST(warnings[0].line() ==
               "warning: the response callback was called while another call of a callback was "
               "running, 2 times; ipc.h: \"Callbacks run one at a time per initiator or responder, "
               "on a thread of the library's own in which all signals are blocked.\"");
}

BOOST_AUTO_TEST_CASE(aCallbackRunsOnAThreadOfTheLibrarys) {
    up();
    deliver("response", response).thread = caller;
    checkBroken({"callback-thread"});
}

BOOST_AUTO_TEST_CASE(aRemovedCallbackIsNotCalled) {
    up();
    install(responses);
    remove(responses);
    deliver("response", response);
    checkBroken({"callback-after-removal"});
    report.calls.pop_back();
    install(responses);
    deliver("response", response);
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(aRemovalWaitsForTheCallbackUnlessThatMadeIt) {
    up();
    install(responses);
    deliver("response", response).endNs.reset();
    remove(responses);
    checkBroken({"callback-after-removal"});
    report.calls.back().thread = librarys;
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(aRemovalThatFailedRemovesNothing) {
    up();
    install(responses);
    remove(responses).result["status"] = 3;
    deliver("response", response);
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(anInitiatorThatEndedCallsNothing) {
    up();
    install(responses);
    call(deinit);
    deliver("response", response);
    checkBroken({"callback-after-end"});
    report.calls.back().arguments["initiator"] = 2;
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(anInitiatorThatEndedIsNotUsed) {
    up();
    call(deinit);
    call(receive, 5);
    checkBroken({"handle-after-end"});
}

BOOST_AUTO_TEST_CASE(endingSomethingThatIsThereDoesNotFail) {
    up();
    call(deinit, 3);
    call("kavri_core_logging_deinit", 1, {{"cookie", "opened"}});
    call("kavri_core_deinit", 2);
    checkBroken({"listed-status", "listed-status", "listed-status"});
    BOOST_TEST(judgeRecord(report)[0].text ==
               "kavri_core_ipc_deinit returned 3 (OUT_OF_RESOURCES)");
    BOOST_TEST(judgeRecord(report)[0].sentence == "NO_ERROR; INVALID_ARGUMENT (initiator null).");
}

BOOST_AUTO_TEST_CASE(endingNothingMayFail) {
    call(deinit, 1, {{"initiator", nullptr}});
    call("kavri_core_logging_deinit", 1, {{"cookie", nullptr}});
    call("kavri_core_deinit", 2);
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(aStatusIsOneThatTheFunctionHas) {
    up();
    call(receive, 15);
    call("kavri_core_ipc_initiator_command_send", 99);
    checkBroken({"listed-status", "listed-status"});
    BOOST_TEST(judgeRecord(report)[1].text == "kavri_core_ipc_initiator_command_send returned 99");
}

BOOST_AUTO_TEST_CASE(aCallThatDidNotReturnHasNoStatus) {
    up();
    CallReport& open = call(deinit, 3);
    open.endNs.reset();
    open.result = Json::object();
    checkBroken({});
}

BOOST_AUTO_TEST_CASE(whatIsRefusedStoresNothing) {
    up();
    call(receive, 4, Json::object(), {{"payload", "stored"}});
    checkBroken({"refused-stores-nothing"});
}

BOOST_AUTO_TEST_CASE(whatSucceedsStoresSomething) {
    call("kavri_core_logging_init", 0, Json::object(), {{"handle", false}});
    call("kavri_core_ipc_initiator_init", 0, Json::object(), {{"handle", false}});
    call("kavri_core_logging_init", 3, Json::object(), {{"handle", true}});
    call("kavri_core_ipc_initiator_init", 3, Json::object(), {{"handle", true}});
    checkBroken({"cookie-stored", "initiator-stored", "failed-logging-stores-nothing",
                 "failed-init-stores-nothing"});
}

BOOST_AUTO_TEST_CASE(onlyThePayloadOfAResponseMayBeNull) {
    up();
    for (const char* name : {"targetCategory", "targetIdentifier", "uuid"}) {
        Json incomplete = response;
        incomplete[name] = nullptr;
        call(receive, 0, Json::object(), incomplete);
        deliver("response", incomplete);
    }
    const std::vector<WarningReport> warnings = judgeRecord(report);
    BOOST_REQUIRE(warnings.size() == 2U);
    BOOST_TEST(warnings[0].rule == "response-stored");
    BOOST_TEST(warnings[0].times == 3U);
    BOOST_TEST(warnings[1].rule == "response-strings");
    BOOST_TEST(warnings[1].times == 3U);
}

BOOST_AUTO_TEST_CASE(noStringOfAnEventIsNull) {
    up();
    call(subscribe, 0, {{"category", "test"}});
    Json incomplete = event;
    incomplete["payload"] = nullptr;
    deliver("event", incomplete);
    checkBroken({"event-strings"});
}

BOOST_AUTO_TEST_CASE(anEventIsOneThatWasSubscribedTo) {
    up();
    call(subscribe, 0, {{"category", "other"}});
    deliver("event", event);
    checkBroken({"subscribed-events"});
}

BOOST_AUTO_TEST_SUITE_END()
