// What a record must hold: complete records of every case, and what is said when
// one thing of them is missing or too many.
#define BOOST_TEST_MODULE requiredRecord

#include "conformance/cases/required_record.h"

#include <boost/test/unit_test.hpp>

using kavri::conformance::CallReport;
using kavri::conformance::CaseReport;
using kavri::conformance::missingFrom;

namespace {

using Lines = std::vector<std::string>;

const std::string send = "kavri_core_ipc_initiator_command_send";
const std::string receive = "kavri_core_ipc_initiator_response_receive";
const std::string installResponse = "kavri_core_ipc_initiator_response_receive_callback";
const std::string installEvent = "kavri_core_ipc_initiator_event_receive_callback";
const std::string subscribe = "kavri_core_ipc_initiator_event_subscribe";
const std::string unsubscribe = "kavri_core_ipc_initiator_event_unsubscribe";
const std::string deinit = "kavri_core_ipc_deinit";

// A record as the module makes it, call by call.
struct Record {
    CaseReport report;

    explicit Record(const std::string& name) { report.name = name; }

    Record& call(const std::string& function, int status = 0, unsigned times = 1) {
        return add(CallReport::Kind::call, function, {{"status", status}}, times);
    }

    Record& response(unsigned times = 1) {
        return add(CallReport::Kind::call, receive,
                   {{"status", 0},
                    {"targetCategory", "test"},
                    {"targetIdentifier", "echo"},
                    {"uuid", "0"},
                    {"payload", nullptr}},
                   times);
    }

    Record& delivery(const std::string& callback, unsigned times) {
        return add(CallReport::Kind::delivery, callback, nlohmann::json::object(), times);
    }

    Record& up() {
        return call("kavri_core_init")
            .call("kavri_core_logging_init")
            .call("kavri_core_ipc_initiator_init");
    }

    Record& down() {
        return call(deinit).call("kavri_core_logging_deinit").call("kavri_core_deinit");
    }

    // The last one of a function, or callback.
    CallReport& last(const std::string& function) {
        const auto found =
            std::find_if(report.calls.rbegin(), report.calls.rend(),
                         [&](const CallReport& call) { return call.function == function; });
        BOOST_REQUIRE((found != report.calls.rend()));
        return *found;
    }

  private:
    Record& add(CallReport::Kind kind, const std::string& function, const nlohmann::json& result,
                unsigned times) {
        for (unsigned i = 0; i < times; ++i) {
            CallReport call;
            call.kind = kind;
            call.function = function;
            call.result = result;
            call.endNs = 1;
            report.calls.push_back(call);
        }
        return *this;
    }
};

Record sendPass() {
    return Record("initiatorSend/initiatorSendPass").up().call(send, 0, 2).response().down();
}

Record sendRepeat() {
    return Record("initiatorSend/initiatorSendRepeat").up().call(send, 0, 13).response(2).down();
}

Record repeatOf(const std::string& name) {
    return Record("initiatorSend/" + name).up().call(send, 0, 10).response(10).down();
}

// Receives that came too early do not matter.
Record nonBlocking() {
    return repeatOf("initiatorRepeatEchoNonBlocking").call(receive, 5, 7);
}

Record callback() {
    return Record("initiatorSend/initiatorRepeatCallback")
        .up()
        .call(installResponse, 0, 2)
        .call(send, 0, 10)
        .delivery("response", 10)
        .down();
}

Record failReceive() {
    return Record("initiatorSend/initiatorFailReceiveWithCallback")
        .up()
        .call(installResponse, 0, 2)
        .call(receive, 4, 2)
        .down();
}

Record event() {
    return Record("initiatorEvent/initiatorRepeatEventCallback")
        .up()
        .call(subscribe)
        .call(installEvent, 0, 2)
        .call(send, 0, 10)
        .delivery("event", 10)
        .call(unsubscribe)
        .down();
}

void checkMissing(const Record& record, const Lines& expected) {
    BOOST_TEST(missingFrom(record.report) == expected, boost::test_tools::per_element());
}

}  // namespace

BOOST_AUTO_TEST_CASE(ofACompleteRecordNothingIsMissing) {
    for (const Record& complete :
         {sendPass(), sendRepeat(), repeatOf("initiatorRepeatStaticResponse"),
          repeatOf("initiatorRepeatEcho"), nonBlocking(), callback(), failReceive(), event()}) {
        BOOST_TEST_CONTEXT(complete.report.name) {
            checkMissing(complete, {});
        }
    }
}

BOOST_AUTO_TEST_CASE(ofAnEmptyRecordAllIsMissing) {
    checkMissing(
        Record("initiatorEvent/initiatorRepeatEventCallback"),
        {"1 call of kavri_core_init that returned 0 must have been made; the record "
         "holds 0",
         "1 call of kavri_core_logging_init that returned 0 must have been made; the "
         "record holds 0",
         "1 call of kavri_core_ipc_initiator_init that returned 0 must have been made; "
         "the record holds 0",
         "10 calls of " + send + " that returned 0 must have been made; the record holds 0",
         "1 call of " + subscribe + " that returned 0 must have been made; the record holds 0",
         "1 call of " + unsubscribe + " that returned 0 must have been made; the record holds 0",
         "2 calls of " + installEvent + " that returned 0 must have been made; the record holds 0",
         "10 event deliveries must have been made; the record holds 0",
         "1 call of kavri_core_ipc_deinit must have been made; the record holds 0",
         "1 call of kavri_core_logging_deinit must have been made; the record holds 0",
         "1 call of kavri_core_deinit must have been made; the record holds 0"});
}

BOOST_AUTO_TEST_CASE(whatIsTooManyIsNamedToo) {
    checkMissing(event().delivery("event", 1),
                 {"10 event deliveries must have been made; the record holds 11"});
    checkMissing(callback().delivery("response", 1),
                 {"10 response deliveries must have been made; the record holds 11"});
    checkMissing(sendRepeat().call(send), {"13 calls of " + send +
                                           " that returned 0 must have been made; the record holds "
                                           "14"});
    checkMissing(sendPass().call("kavri_core_init"),
                 {"1 call of kavri_core_init that returned 0 must have been made; the record holds "
                  "2"});
}

BOOST_AUTO_TEST_CASE(whatTheCaseDoesNotDoMustNotBeThere) {
    checkMissing(failReceive().call(send),
                 {"0 calls of " + send +
                  " that returned 0 must have been made; the record holds "
                  "1"});
    checkMissing(failReceive().response(),
                 {"0 receives of a response with category, identifier and uuid must have been "
                  "made; the record holds 1"});
    checkMissing(repeatOf("initiatorRepeatEcho").delivery("response", 1),
                 {"0 response deliveries must have been made; the record holds 1"});
}

BOOST_AUTO_TEST_CASE(anotherStatusIsNotTheRequiredOne) {
    Record record = failReceive();
    record.last(receive).result["status"] = 5;
    checkMissing(record, {"2 calls of " + receive +
                          " that returned 4 must have been made; the record "
                          "holds 1"});
    record = event();
    record.last(unsubscribe).result = nlohmann::json::object();
    checkMissing(record, {"1 call of " + unsubscribe +
                          " that returned 0 must have been made; the record holds 0"});
}

BOOST_AUTO_TEST_CASE(aStatusBelowTheLevelIsNotRequired) {
    using kavri::conformance::Level;
    Record record = event();
    record.last(unsubscribe).result["status"] = 14;
    BOOST_TEST(missingFrom(record.report, Level::should).size() == 1U);
    BOOST_TEST(missingFrom(record.report, Level::must).empty());
    // That it was called is.
    record.last(unsubscribe).endNs.reset();
    BOOST_TEST(missingFrom(record.report, Level::must).size() == 1U);
}

BOOST_AUTO_TEST_CASE(whatDidNotReturnDoesNotCount) {
    Record record = callback();
    record.last("response").endNs.reset();
    record.last(deinit).endNs.reset();
    checkMissing(record, {"10 response deliveries must have been made; the record holds 9",
                          "1 call of kavri_core_ipc_deinit must have been made; the record holds "
                          "0"});
}

BOOST_AUTO_TEST_CASE(whatAnEndReturnsIsNotAskedFor) {
    Record record = sendPass();
    record.last(deinit).result["status"] = 1;
    checkMissing(record, {});
}

BOOST_AUTO_TEST_CASE(aResponseHasCategoryIdentifierAndUuid) {
    for (const auto* name : {"targetCategory", "targetIdentifier", "uuid"}) {
        const Lines oneLess = {
            "10 receives of a response with category, identifier and uuid must have been made; "
            "the record holds 9"};
        Record record = repeatOf("initiatorRepeatEcho");
        record.last(receive).result[name] = nullptr;
        checkMissing(record, oneLess);
        record.last(receive).result.erase(name);
        checkMissing(record, oneLess);
    }
}

BOOST_AUTO_TEST_CASE(ofAnUnknownCaseNothingIsRequired) {
    checkMissing(Record("initiatorSend/another"), {});
}
