// Known failures: how the file is read, which failures it covers, and what is
// said of entries that are no longer true.
#define BOOST_TEST_MODULE expectations

#include "conformance/cases/expectations.h"

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "process/exit_status.h"
#include "process/temporary_folder.h"

using kavri::conformance::CaseReport;
using kavri::conformance::CheckReport;
using kavri::conformance::Expectations;
using kavri::conformance::Verdict;
using kavri::process::CommandFailure;
using kavri::process::ExitStatus;
using kavri::process::TemporaryFolder;

namespace {

using Lines = std::vector<std::string>;
using Cases = std::vector<CaseReport>;

const std::string echoName = "initiatorSend/initiatorRepeatEcho";
const std::string passName = "initiatorSend/initiatorSendPass";

struct ExpectationsFile {
    TemporaryFolder folder;
    std::string path = folder / "known.txt";

    Expectations read(const std::string& text) const {
        std::ofstream(path) << text;
        return Expectations::read(path);
    }

    void checkRefused(const std::string& text, const std::string& complaint) const {
        BOOST_CHECK_EXCEPTION(read(text), CommandFailure, [&](const CommandFailure& failure) {
            BOOST_TEST(failure.what() == path + complaint);
            return failure.status() == ExitStatus::usage;
        });
    }
};

CheckReport check(const std::string& text, bool passed) {
    CheckReport report;
    report.text = text;
    report.passed = passed;
    return report;
}

CaseReport ended(const std::string& name, Verdict verdict) {
    CaseReport report;
    report.name = name;
    report.verdict = verdict;
    report.checks.push_back(check("a check that passed", true));
    return report;
}

CaseReport failed(const std::string& name, const Lines& checks) {
    CaseReport report = ended(name, Verdict::fail);
    for (const std::string& text : checks) {
        report.checks.push_back(check(text, false));
    }
    return report;
}

// The reason noted in the one case.
std::string known(Expectations& expectations, const CaseReport& report) {
    Cases cases = {report};
    expectations.apply(cases);
    return cases.front().known;
}

void checkComplaints(const Expectations& expectations, const Lines& expected) {
    BOOST_TEST(expectations.complaints() == expected, boost::test_tools::per_element());
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(expectations, ExpectationsFile)

BOOST_AUTO_TEST_CASE(aWholeCaseIsExpectedToFailInAnyWay) {
    for (const Verdict verdict : {Verdict::fail, Verdict::timeout, Verdict::crash}) {
        Expectations expected = read("initiatorRepeatEcho  # the service upper-cases, ticket #12");
        CaseReport report = failed(echoName, {"payload == rpayload", "uuid == ruuid"});
        report.verdict = verdict;
        BOOST_TEST(known(expected, report) == "the service upper-cases, ticket #12");
        checkComplaints(expected, {});
    }
}

BOOST_AUTO_TEST_CASE(theSuiteMayBeNamed) {
    Expectations expected = read(echoName + ": payload == rpayload # why");
    BOOST_TEST(known(expected, failed(echoName, {"payload == rpayload"})) == "why");
}

BOOST_AUTO_TEST_CASE(commentsAndBlankLinesSayNothing) {
    Expectations expected = read(
        "# initiatorSendPass # no\n\n \t\n  # neither\r\n"
        "\tinitiatorRepeatEcho\t# yes\r\n");
    BOOST_TEST(known(expected, failed(passName, {"a == b"})) == "");
    BOOST_TEST(known(expected, failed(echoName, {"a == b"})) == "yes");
}

BOOST_AUTO_TEST_CASE(aCheckMayHoldTheSignsThatSeparate) {
    Expectations expected = read("initiatorRepeatEcho: ns::a == \"#1\"  # why");
    BOOST_TEST(known(expected, failed(echoName, {"ns::a == \"#1\""})) == "why");
}

BOOST_AUTO_TEST_CASE(allChecksThatFailedMustBeExpected) {
    Expectations expected = read(
        "initiatorRepeatEcho: a == b  # one\n"
        "initiatorRepeatEcho: c == d  # two\n"
        "initiatorSendPass: e == f  # three\n");
    BOOST_TEST(known(expected, failed(echoName, {"a == b", "a == b"})) == "one");
    BOOST_TEST(known(expected, failed(echoName, {"c == d", "a == b"})) == "one; two");
    BOOST_TEST(known(expected, failed(echoName, {"a == b", "e == f"})) == "");
    BOOST_TEST(known(expected, failed(passName, {"a == b"})) == "");
}

BOOST_AUTO_TEST_CASE(aCheckCoversNoOtherWayToFail) {
    Expectations expected = read("initiatorRepeatEcho: a == b  # why");
    CaseReport report = failed(echoName, {"a == b"});
    report.verdict = Verdict::timeout;
    BOOST_TEST(known(expected, report) == "");
    report.verdict = Verdict::crash;
    BOOST_TEST(known(expected, report) == "");
    report.verdict = Verdict::fail;
    report.missing = {"2 calls must have been made; the record holds 1"};
    BOOST_TEST(known(expected, report) == "");
    BOOST_TEST(known(expected, failed(echoName, {})) == "");
}

BOOST_AUTO_TEST_CASE(whatIsNoVerdictOnTheLibraryIsNeverKnown) {
    Expectations expected = read("initiatorRepeatEcho  # why");
    BOOST_TEST(known(expected, ended(echoName, Verdict::notRun)) == "");
    BOOST_TEST(known(expected, ended(echoName, Verdict::harnessError)) == "");
    checkComplaints(expected, {});
}

BOOST_AUTO_TEST_CASE(anUnexpectedPassIsSaid) {
    Expectations expected = read(
        "\ninitiatorRepeatEcho  # ticket 12\n"
        "initiatorSendPass: a == b  # ticket 13");
    BOOST_TEST(known(expected, ended(echoName, Verdict::pass)) == "");
    BOOST_TEST(known(expected, ended(passName, Verdict::pass)) == "");
    checkComplaints(expected, {path + ":2: unexpected pass: " + echoName +
                                   " is expected to fail (ticket 12); take the entry out",
                               path + ":3: unexpected pass: " + passName +
                                   " is expected to fail (ticket 13); take the entry out"});
}

BOOST_AUTO_TEST_CASE(aCheckThatDidNotFailIsSaid) {
    Expectations expected = read(
        "initiatorRepeatEcho: a == b  # one\n"
        "initiatorRepeatEcho: a == B  # two\n");
    BOOST_TEST(known(expected, failed(echoName, {"a == b"})) == "one");
    checkComplaints(expected, {path + ":2: matched nothing: no check 'a == B' failed in " +
                               echoName + "; put its text right, or take the entry out"});
}

BOOST_AUTO_TEST_CASE(ofCasesThatDidNotRunNothingIsSaid) {
    Expectations expected = read("initiatorRepeatEcho  # why");
    BOOST_TEST(known(expected, ended(passName, Verdict::pass)) == "");
    checkComplaints(expected, {});
}

BOOST_AUTO_TEST_CASE(oneOfSeveralRunsIsEnoughForAnEntryToBeTrue) {
    Expectations expected = read("initiatorRepeatEcho  # now and then");
    BOOST_TEST(known(expected, ended(echoName, Verdict::pass)) == "");
    BOOST_TEST(known(expected, failed(echoName, {"a == b"})) == "now and then");
    checkComplaints(expected, {});
}

BOOST_AUTO_TEST_CASE(anUnknownCaseIsRefusedWithTheNearest) {
    checkRefused(
        "\ninitiatorRepeatEko # why",
        ":2: no case 'initiatorRepeatEko'; did you mean 'initiatorRepeatEcho'? see --list");
    checkRefused("initiatorSent/initiatorSendPas: a == b # why",
                 ":1: no case 'initiatorSent/initiatorSendPas'; did you mean "
                 "'initiatorSend/initiatorSendPass'? see --list");
    checkRefused("somethingElse # why", ":1: no case 'somethingElse'; see --list");
}

BOOST_AUTO_TEST_CASE(aReasonMustBeGiven) {
    checkRefused("initiatorRepeatEcho",
                 ":1: no reason; write why behind the entry: 'initiatorRepeatEcho  # why'");
    checkRefused("initiatorRepeatEcho: a == b #  ",
                 ":1: no reason; write why behind the entry: 'initiatorRepeatEcho: a == b  # why'");
}

BOOST_AUTO_TEST_CASE(aColonAsksForACheck) {
    checkRefused("initiatorRepeatEcho:  # why",
                 ":1: no check behind 'initiatorRepeatEcho:'; write its text as the report shows "
                 "it, or leave out the ':'");
}

BOOST_AUTO_TEST_CASE(aFileThatCannotBeReadIsNamed) {
    for (const auto& unreadable : {folder / "none.txt", folder.path()}) {
        BOOST_CHECK_EXCEPTION(
            Expectations::read(unreadable), CommandFailure, [&](const CommandFailure& failure) {
                return failure.status() == ExitStatus::couldNotRun &&
                       std::string(failure.what()).starts_with(unreadable.string() + ": ");
            });
    }
}

BOOST_AUTO_TEST_CASE(anEmptyFileExpectsNothing) {
    Expectations expected = read("");
    BOOST_TEST(known(expected, failed(echoName, {"a == b"})) == "");
    checkComplaints(expected, {});
}

BOOST_AUTO_TEST_SUITE_END()
