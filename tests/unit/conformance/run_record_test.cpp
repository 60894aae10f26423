// What a run's events add up to.
#define BOOST_TEST_MODULE runRecord

#include "conformance/module/run_record.h"

#include <boost/test/unit_test.hpp>

#include "told_run.h"

using kavri::conformance::CallReport;
using kavri::conformance::CaseReport;
using kavri::conformance::CheckReport;
using kavri::conformance::ProcessEnd;
using kavri::conformance::RunRecord;
using kavri::conformance::Verdict;
using Kind = kavri::conformance::ModuleEvent::Kind;

namespace {

using Json = nlohmann::json;
using Lines = std::vector<std::string>;

// A case of which nothing is required, and one that needs no test service.
const std::string unknown = "s/c";
const std::string refusal = "initiatorSend/initiatorFailReceiveWithCallback";

const std::string receive = "kavri_core_ipc_initiator_response_receive";
const std::string install = "kavri_core_ipc_initiator_response_receive_callback";

void checkLines(const Lines& found, const Lines& expected) {
    BOOST_TEST(found == expected, boost::test_tools::per_element());
}

struct Run : kavri::tests::ToldRun {
    unsigned lastNumber = 0;

    void begin(const std::string& name) { BOOST_TEST(tell(Kind::began, name) == nullptr); }

    const CaseReport& end() {
        BOOST_REQUIRE(record.underWay() != nullptr);
        const CaseReport* ended = tell(Kind::ended, record.underWay()->name, 5);
        BOOST_REQUIRE(ended != nullptr);
        return *ended;
    }

    void check(bool passed, const std::string& place) {
        tell(passed ? Kind::passed : Kind::failed, place, 0, {{"check", "a == b"}});
    }

    // A call that returns.
    void call(const std::string& function, int status = 0) {
        const unsigned number = ++lastNumber;
        tell(Kind::call, function, number);
        tell(Kind::returned, "", number, {{"status", status}});
    }

    void up() {
        call("kavri_core_init");
        call("kavri_core_logging_init");
        call("kavri_core_ipc_initiator_init");
    }

    void down() {
        call("kavri_core_ipc_deinit");
        call("kavri_core_logging_deinit");
        call("kavri_core_deinit");
    }

    void refuseReceives(unsigned times) {
        begin(refusal);
        up();
        call(install);
        for (unsigned i = 0; i < times; ++i) {
            call(receive, 4);
        }
        call(install);
        down();
        check(true, "t.cpp(1)");
    }
};

struct CaseUnderWay : Run {
    CaseUnderWay() { begin(unknown); }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(checks, CaseUnderWay)

BOOST_AUTO_TEST_CASE(aFailedCheckBelowTheLevelIsARemark) {
    using kavri::conformance::Level;
    const std::string events = "initiatorEvent/initiatorRepeatEventCallback";
    const std::string unsubscribed = "KAVRI_CORE_STATUS_NO_ERROR == eventUnsubscribe(\"test\")";
    for (const Level level : {Level::may, Level::should, Level::must}) {
        Run run;
        run.record.judgeBy(level);
        run.begin(events);
        BOOST_TEST(run.record.underWay()->level == "must");
        for (int i = 0; i < 2; ++i) {
            run.tell(Kind::failed, "t.cpp(1)", 0, {{"check", unsubscribed}});
        }
        const bool counts = level <= Level::should;
        BOOST_TEST((run.record.underWay()->verdict == Verdict::fail) == counts);
        checkLines(
            run.record.underWay()->remarks,
            counts ? Lines{} : Lines{"not required, since it is a \"should\": " + unsubscribed});
        // The record must be complete nevertheless.
        const CaseReport& ended = run.end();
        BOOST_TEST((ended.verdict == Verdict::fail));
        BOOST_TEST(ended.missing.empty() == counts);
    }
}

BOOST_AUTO_TEST_CASE(aCaseWithNoFailedCheckHasPassed) {
    const std::int64_t beginNs = nowNs;
    for (int i = 0; i < 3; ++i) {
        BOOST_TEST(tell(Kind::passed, "t.cpp(1)") == nullptr);
    }
    const CaseReport& ended = end();
    BOOST_TEST(ended.name == unknown);
    BOOST_TEST((ended.verdict == Verdict::pass));
    BOOST_TEST(ended.checks.size() == 3U);
    BOOST_TEST(ended.checksFailed() == 0U);
    BOOST_TEST(ended.beginNs == beginNs);
    BOOST_TEST(ended.endNs == nowNs);
    checkLines(ended.missing, {});
    BOOST_TEST(record.underWay() == nullptr);
    BOOST_TEST(record.cases().size() == 1U);
}

BOOST_AUTO_TEST_CASE(aFailedCheckFailsItsCase) {
    check(false, "t.cpp(1)");
    check(true, "t.cpp(2)");
    const CaseReport& ended = end();
    BOOST_TEST((ended.verdict == Verdict::fail));
    BOOST_TEST(ended.checks.size() == 2U);
    BOOST_TEST(ended.checksFailed() == 1U);
}

BOOST_AUTO_TEST_CASE(aCheckHasItsTextPlaceValuesTimeAndThread) {
    tell(Kind::failed, "t.cpp(9)", 0,
         {{"check", "x == y"}, {"message", "error: check x"}, {"left", "1"}, {"right", "2"}});
    const std::int64_t failedNs = nowNs;
    tell(Kind::passed, "t.cpp(10)", 0, {{"check", "jj != 0"}});
    const CheckReport& failed = record.underWay()->checks.at(0);
    BOOST_TEST(!failed.passed);
    BOOST_TEST(failed.text == "x == y");
    BOOST_TEST(failed.place == "t.cpp(9)");
    BOOST_TEST(failed.left == "1");
    BOOST_TEST(failed.right == "2");
    BOOST_TEST(failed.message == "error: check x");
    BOOST_TEST(failed.atNs == failedNs);
    BOOST_TEST(failed.thread == 7);
    const CheckReport& passed = record.underWay()->checks.at(1);
    BOOST_TEST(passed.passed);
    BOOST_TEST(passed.text == "jj != 0");
    BOOST_TEST(passed.left.empty());
    BOOST_TEST(passed.right.empty());
    BOOST_TEST(passed.message.empty());
}

BOOST_AUTO_TEST_CASE(anExceptionFailsItsCaseAndIsSaid) {
    tell(Kind::aborted, "", 0, {{"message", "std::bad_alloc; last checkpoint: t.cpp(1)"}});
    check(true, "t.cpp(1)");
    const CaseReport& ended = end();
    BOOST_TEST((ended.verdict == Verdict::fail));
    checkLines(ended.missing,
               {"an exception ended the case: std::bad_alloc; last checkpoint: t.cpp(1)"});
}

BOOST_AUTO_TEST_CASE(failuresOutsideOfACaseAreKept) {
    check(false, "t.cpp(1)");
    end();
    tell(Kind::failed, "t.cpp(9)", 0, {{"check", "a"}, {"message", "error: check a has failed"}});
    check(true, "t.cpp(10)");
    tell(Kind::aborted, "", 0, {{"message", "std::bad_alloc"}});
    checkLines(record.strayFailures(), {"t.cpp(9): error: check a has failed",
                                        "an exception outside of every case: std::bad_alloc"});
}

BOOST_AUTO_TEST_CASE(whatHappensOutsideOfACaseCountsForNone) {
    end();
    BOOST_TEST(tell(Kind::failed, "t.cpp(1)") == nullptr);
    BOOST_TEST(tell(Kind::call, "kavri_core_init", 1) == nullptr);
    BOOST_TEST(tell(Kind::ended, unknown, 5) == nullptr);
    BOOST_TEST(record.openCall() == nullptr);
    BOOST_TEST(record.lastEventNs() == nowNs);
    BOOST_TEST(record.cases().size() == 1U);
    BOOST_TEST((record.cases().front().verdict == Verdict::pass));
}

BOOST_AUTO_TEST_CASE(aCaseThatIsCutOffEndsThen) {
    check(true, "t.cpp(1)");
    CaseReport& cutOff = record.cutOff(Verdict::timeout, nowNs + 70);
    BOOST_TEST((cutOff.verdict == Verdict::timeout));
    BOOST_TEST(cutOff.endNs == nowNs + 70);
    BOOST_TEST(cutOff.checks.size() == 1U);
    BOOST_TEST(&cutOff == &record.cases().at(0));
    BOOST_TEST(record.underWay() == nullptr);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(calls, CaseUnderWay)

BOOST_AUTO_TEST_CASE(aCallHasItsArgumentsResultTimesAndThread) {
    BOOST_TEST(tell(Kind::call, receive, 1, {{"timeout", -1}}) == nullptr);
    const std::int64_t beginNs = nowNs;
    BOOST_TEST(tell(Kind::returned, "", 1, {{"status", 0}, {"uuid", "3"}}) == nullptr);
    const CallReport& call = record.underWay()->calls.at(0);
    BOOST_TEST((call.kind == CallReport::Kind::call));
    BOOST_TEST(call.number == 1U);
    BOOST_TEST(call.function == receive);
    BOOST_TEST(call.thread == 7);
    BOOST_TEST(call.beginNs == beginNs);
    BOOST_TEST(call.endNs.value() == nowNs);
    BOOST_TEST(call.arguments.dump() == R"({"timeout":-1})");
    BOOST_TEST(call.result.dump() == R"({"status":0,"uuid":"3"})");
    BOOST_TEST(record.openCall() == nullptr);
}

BOOST_AUTO_TEST_CASE(aDeliveryIsRecordedLikeACall) {
    tell(Kind::deliver, "event", 4, {{"context", "0x12345678"}});
    BOOST_REQUIRE(record.openCall() != nullptr);
    BOOST_TEST(record.openCall()->function == "event");
    tell(Kind::delivered, "", 4);
    BOOST_TEST(record.openCall() == nullptr);
    const CallReport& delivery = end().calls.at(0);
    BOOST_TEST((delivery.kind == CallReport::Kind::delivery));
    BOOST_TEST(delivery.number == 4U);
    BOOST_TEST(delivery.arguments.dump() == R"({"context":"0x12345678"})");
    BOOST_TEST(delivery.result.dump() == "{}");
    BOOST_TEST(delivery.endNs.has_value());
}

BOOST_AUTO_TEST_CASE(theLongestOpenCallIsTheOneToBlame) {
    tell(Kind::call, "first", 1);
    tell(Kind::call, "second", 2);
    tell(Kind::deliver, "response", 3);
    BOOST_TEST(record.openCall()->function == "first");
    tell(Kind::returned, "", 1);
    BOOST_TEST(record.openCall()->function == "second");
    tell(Kind::delivered, "", 3);
    BOOST_TEST(record.openCall()->function == "second");
    tell(Kind::returned, "", 2);
    BOOST_TEST(record.openCall() == nullptr);
}

BOOST_AUTO_TEST_CASE(callsMayReturnInAnyOrderAndKeepTheirResults) {
    tell(Kind::call, "first", 1);
    tell(Kind::call, "second", 2);
    tell(Kind::returned, "", 2, {{"status", 2}});
    tell(Kind::returned, "", 1, {{"status", 1}});
    const CaseReport& ended = end();
    BOOST_TEST(ended.calls.at(0).result.dump() == R"({"status":1})");
    BOOST_TEST(ended.calls.at(1).result.dump() == R"({"status":2})");
}

BOOST_AUTO_TEST_CASE(aCallThatDoesNotReturnStaysOpenInTheRecord) {
    call("kavri_core_init");
    tell(Kind::call, receive, 2, {{"timeout", -1}});
    BOOST_TEST(record.openCall()->arguments.dump() == R"({"timeout":-1})");
    const CaseReport& cutOff = record.cutOff(Verdict::timeout, nowNs + 1);
    BOOST_TEST(cutOff.calls.at(0).endNs.has_value());
    BOOST_TEST(!cutOff.calls.at(1).endNs.has_value());
    BOOST_TEST(record.openCall() == nullptr);
}

BOOST_AUTO_TEST_CASE(whatReturnsOutOfNowhereIsPassedOver) {
    tell(Kind::returned, "", 1, {{"status", 0}});
    tell(Kind::delivered, "", 2);
    tell(Kind::returned, "", 0);
    BOOST_TEST(end().calls.empty());
}

BOOST_AUTO_TEST_CASE(anOpenCallIsNotThatOfTheNextCase) {
    tell(Kind::call, receive, 1);
    tell(Kind::call, "kavri_core_init", 0);
    end();
    BOOST_TEST(record.openCall() == nullptr);
    begin("s/later");
    BOOST_TEST(record.openCall() == nullptr);
    tell(Kind::returned, "", 1, {{"status", 0}});
    BOOST_TEST(end().calls.empty());
    BOOST_TEST(!record.cases().front().calls.front().endNs.has_value());
}

BOOST_AUTO_TEST_CASE(theProbesOwnCallsCanHangButAreNoneOfTheCase) {
    tell(Kind::call, "kavri_core_init", 0);
    BOOST_REQUIRE(record.openCall() != nullptr);
    BOOST_TEST(record.openCall()->function == "kavri_core_init");
    BOOST_TEST(record.openCall()->beginNs == nowNs);
    tell(Kind::returned, "", 0, {{"status", 0}});
    BOOST_TEST(record.openCall() == nullptr);
    BOOST_TEST(end().calls.empty());
}

BOOST_AUTO_TEST_CASE(aFaultBelongsToItsCase) {
    tell(Kind::fault, "send-lost", 0, {{"number", 3}, {"did", "lost it"}});
    const std::int64_t firedNs = nowNs;
    const CaseReport& ended = end();
    BOOST_TEST_REQUIRE(ended.faults.size() == 1U);
    BOOST_TEST(ended.faults.front().name == "send-lost");
    BOOST_TEST(ended.faults.front().did == "lost it");
    BOOST_TEST(ended.faults.front().atNs == firedNs);
    BOOST_TEST((ended.verdict == Verdict::pass));
}

BOOST_AUTO_TEST_CASE(whatTheLibraryLeftBehindIsARemark) {
    tell(Kind::left, "", 0, {{"descriptors", 2}, {"threads", 1}});
    const std::vector<std::string> remarks = {
        "left behind by the library: 2 descriptors, 1 thread"};
    BOOST_TEST(end().remarks == remarks, boost::test_tools::per_element());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(warnings, CaseUnderWay)

BOOST_AUTO_TEST_CASE(whatTheRecordShowsIsAWarningAndNoFailure) {
    call("kavri_core_ipc_deinit", 3);
    const CaseReport& ended = end();
    BOOST_TEST((ended.verdict == Verdict::pass));
    BOOST_TEST_REQUIRE(ended.warnings.size() == 1U);
    BOOST_TEST(ended.warnings[0].rule == "listed-status");
}

BOOST_AUTO_TEST_CASE(aWarningIsAFailureWhereThatIsAskedFor) {
    record.failOnWarnings();
    call("kavri_core_ipc_deinit", 3);
    BOOST_TEST((end().verdict == Verdict::fail));
    begin(unknown);
    call("kavri_core_ipc_deinit", 0);
    BOOST_TEST((end().verdict == Verdict::pass));
}

BOOST_AUTO_TEST_CASE(whatTheProbeFoundIsAWarningOfItsCase) {
    tell(Kind::call, receive, 5);
    tell(Kind::breach, "", 5, {{"rule", "allocated-strings"}, {"what", "uuid lies on the stack"}});
    tell(Kind::breach, "", 5, {{"rule", "allocated-strings"}, {"what", "payload as well"}});
    tell(Kind::breach, "", 5, {{"rule", "no-such-rule"}, {"what", "nobody knows"}});
    const CaseReport& ended = end();
    BOOST_TEST_REQUIRE(ended.warnings.size() == 1U);
    BOOST_TEST(ended.warnings[0].text == receive + ": uuid lies on the stack");
    BOOST_TEST(ended.warnings[0].times == 2U);
    begin(unknown);
    BOOST_TEST(end().warnings.empty());
}

BOOST_AUTO_TEST_CASE(whatIsLeftAfterTheFirstUseOfAFunctionMayBeKeptForGood) {
    call("kavri_core_init");
    tell(Kind::left, "", 0, {{"descriptors", 1}});
    BOOST_TEST(end().warnings.empty());
    begin(unknown);
    call("kavri_core_init");
    tell(Kind::left, "", 0, {{"descriptors", 1}});
    const CaseReport& second = end();
    BOOST_TEST_REQUIRE(second.warnings.size() == 1U);
    BOOST_TEST(second.warnings[0].rule == "released-at-the-end");
    begin(unknown);
    call("kavri_core_init");
    call(install);
    tell(Kind::left, "", 0, {{"descriptors", 1}});
    BOOST_TEST(end().warnings.empty());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(theEndOfTheProcess, CaseUnderWay)

BOOST_AUTO_TEST_CASE(aCrashHasItsSignalThreadAndStack) {
    BOOST_TEST(!record.processEnd().has_value());
    tell(Kind::crash, "", 11);
    tell(Kind::stack, "", 0, {{"frames", {"/lib/a.so+0x1", 7, "/lib/b.so+0x2"}}});
    BOOST_TEST_REQUIRE(record.processEnd().has_value());
    const ProcessEnd& end = *record.processEnd();
    BOOST_TEST((end.kind == ProcessEnd::Kind::signal));
    BOOST_TEST(end.number == 11U);
    BOOST_TEST(end.thread == 7);
    checkLines(end.frames, {"/lib/a.so+0x1", "/lib/b.so+0x2"});
}

BOOST_AUTO_TEST_CASE(aCallThatEndsTheProcessHasItsFunctionAndStatus) {
    tell(Kind::exit, "", 3, {{"function", "_exit"}});
    BOOST_TEST_REQUIRE(record.processEnd().has_value());
    BOOST_TEST((record.processEnd()->kind == ProcessEnd::Kind::call));
    BOOST_TEST(record.processEnd()->number == 3U);
    BOOST_TEST(record.processEnd()->function == "_exit");
}

BOOST_AUTO_TEST_CASE(aRoundForgetsTheCasesOfTheOneBefore) {
    BOOST_TEST(!record.hasEndedCase());
    end();
    record.beginRound();
    BOOST_TEST(record.cases().empty());
    BOOST_TEST(record.hasEndedCase());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(whatAPassNeeds, Run)

BOOST_AUTO_TEST_CASE(aKnownCaseWithACompleteRecordHasPassed) {
    refuseReceives(2);
    const CaseReport& ended = end();
    BOOST_TEST((ended.verdict == Verdict::pass));
    checkLines(ended.missing, {});
}

BOOST_AUTO_TEST_CASE(aPassWhoseRecordLacksSomethingIsAFailure) {
    refuseReceives(1);
    const CaseReport& ended = end();
    BOOST_TEST((ended.verdict == Verdict::fail));
    BOOST_TEST(ended.checksFailed() == 0U);
    checkLines(ended.missing, {"2 calls of " + receive +
                               " that returned 4 must have been made; the record holds 1"});
}

BOOST_AUTO_TEST_CASE(ofWhatIsNoPassTheRecordIsNotAskedFor) {
    refuseReceives(1);
    check(false, "t.cpp(2)");
    checkLines(end().missing, {});
    refuseReceives(1);
    checkLines(record.cutOff(Verdict::crash, nowNs).missing, {});
}

BOOST_AUTO_TEST_CASE(withATestServiceAPassStaysOne) {
    begin(unknown);
    tell(Kind::peer, "ok", 0, {{"us", 123}});
    BOOST_TEST((end().verdict == Verdict::pass));
}

BOOST_AUTO_TEST_CASE(withoutATestServiceThereIsNoPass) {
    refuseReceives(2);
    tell(Kind::peer, "missing", 0, {{"reason", "nobody is there"}});
    const CaseReport& ended = end();
    BOOST_TEST((ended.verdict == Verdict::fail));
    checkLines(ended.missing, {"no test service answers: nobody is there"});
}

// The probe looks once: what it finds holds for the rest of the run.
BOOST_AUTO_TEST_CASE(aMissingTestServiceIsMissingToLaterCasesToo) {
    begin(unknown);
    tell(Kind::peer, "missing", 0, {{"reason", "nobody"}});
    end();
    refuseReceives(1);
    checkLines(end().missing, {"2 calls of " + receive +
                                   " that returned 4 must have been made; the record holds 1",
                               "no test service answers: nobody"});
}

BOOST_AUTO_TEST_CASE(aFailureIsNotPutDownToAMissingTestService) {
    begin(unknown);
    tell(Kind::peer, "missing", 0, {{"reason", "nobody"}});
    check(false, "t.cpp(1)");
    checkLines(end().missing, {});
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(limits, Run)

BOOST_AUTO_TEST_CASE(ofTooManyCallsAndChecksTheFirstAreKept) {
    begin(unknown);
    for (size_t i = 0; i < RunRecord::callsLimit + 7; ++i) {
        call("send");
    }
    for (size_t i = 0; i < RunRecord::checksLimit + 5; ++i) {
        check(true, "t.cpp(1)");
    }
    tell(Kind::call, "receive", ++lastNumber);
    const CaseReport& ended = end();
    BOOST_TEST(ended.calls.size() == RunRecord::callsLimit);
    BOOST_TEST(ended.checks.size() == RunRecord::checksLimit);
    BOOST_TEST((ended.verdict == Verdict::fail));
    checkLines(ended.missing, {"13 calls and checks are left out: no case has so many"});
    begin(unknown);
    BOOST_TEST((end().verdict == Verdict::pass));
}

BOOST_AUTO_TEST_SUITE_END()
