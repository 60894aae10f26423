// The report for build servers, as one of them would read it.
#define BOOST_TEST_MODULE junitReport

#include "conformance/report/junit_report.h"

#include <boost/test/unit_test.hpp>
#include <pugixml.hpp>

using namespace kavri::conformance;

namespace {

constexpr std::int64_t ms = 1'000'000;

struct ParsedReport {
    Report report;
    pugi::xml_document document;

    ParsedReport() {
        report.date = "2026-11-20T12:00:00Z";
        addLibrary("/opt/other/lib");
    }

    LibraryReport& addLibrary(const std::string& name) {
        report.libraries.emplace_back().name = name;
        return report.libraries.back();
    }

    CaseReport& addCase(const std::string& name, Verdict verdict) {
        CaseReport& added = report.libraries.back().cases.emplace_back();
        added.name = name;
        added.verdict = verdict;
        added.beginNs = 1000 * ms;
        added.endNs = 1250 * ms;
        return added;
    }

    pugi::xml_node parse() {
        const std::string text = junitReport(report);
        const pugi::xml_parse_result result =
            document.load_string(text.c_str(), pugi::parse_full | pugi::parse_ws_pcdata_single);
        BOOST_REQUIRE_MESSAGE(result, result.description() << " in " << text);
        return document.child("testsuites");
    }

    // The only case.
    pugi::xml_node parseCase() { return parse().child("testsuite").child("testcase"); }
};

std::string attribute(pugi::xml_node node, const char* name) {
    BOOST_TEST(!node.attribute(name).empty(), "no attribute " << name);
    return node.attribute(name).value();
}

void checkTotals(pugi::xml_node node, const char* tests, const char* failures, const char* errors,
                 const char* skipped) {
    BOOST_TEST(attribute(node, "tests") == tests);
    BOOST_TEST(attribute(node, "failures") == failures);
    BOOST_TEST(attribute(node, "errors") == errors);
    BOOST_TEST(attribute(node, "skipped") == skipped);
}

void checkHolds(const std::string& text, const std::string& part) {
    BOOST_TEST(text.find(part) != text.npos, "'" << part << "' is not in '" << text << "'");
}

CheckReport failedCheck(const std::string& text, const std::string& left,
                        const std::string& right) {
    return {.text = text,
            .place = "test_ipc_initiator.cpp(199)",
            .passed = false,
            .left = left,
            .right = right,
            .message = "error: check " + text + " has failed"};
}

CallReport callOf(const std::string& function, std::optional<std::int64_t> endNs) {
    CallReport call;
    call.function = function;
    call.beginNs = 1002 * ms;
    call.endNs = endNs;
    call.arguments = {{"uuid", "3"}};
    call.result = {{"status", 0}};
    return call;
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(junit, ParsedReport)

BOOST_FIXTURE_TEST_CASE(aPassThatTheOtherSideDoesNotConfirmSaysSo, ParsedReport) {
    addCase("suite/case", Verdict::pass);
    report.libraries.back().unconfirmed = true;
    const pugi::xml_node testCase = parseCase();
    BOOST_TEST(!testCase.child("failure"));
    checkHolds(testCase.child_value("system-out"), "pass, not confirmed by the other side\n");
}

BOOST_AUTO_TEST_CASE(eachSuiteOfEachLibraryIsASuite) {
    addCase("send/pass", Verdict::pass);
    addCase("send/echo", Verdict::fail);
    addCase("event/event", Verdict::crash);
    addLibrary("lib");
    addCase("send/pass", Verdict::notRun);
    const pugi::xml_node root = parse();
    checkTotals(root, "4", "1", "2", "0");
    BOOST_TEST(attribute(root, "time") == "1.000000");
    std::vector<std::string> names;
    for (const pugi::xml_node suite : root.children("testsuite")) {
        const std::string name = attribute(suite, "name");
        names.push_back(name);
        BOOST_TEST(attribute(suite, "timestamp") == "2026-11-20T12:00:00");
        for (const pugi::xml_node testCase : suite.children("testcase")) {
            BOOST_TEST(attribute(testCase, "classname") == name);
            names.push_back(attribute(testCase, "name"));
        }
    }
    const std::vector<std::string> expected = {
        "/opt/other/lib.send", "pass", "echo", "/opt/other/lib.event", "event", "lib.send", "pass"};
    BOOST_TEST(names == expected, boost::test_tools::per_element());
    checkTotals(root.child("testsuite"), "2", "1", "0", "0");
    BOOST_TEST(attribute(root.child("testsuite"), "time") == "0.500000");
}

BOOST_AUTO_TEST_CASE(aPassHasATimeAndNoOutcome) {
    addCase("send/pass", Verdict::pass);
    const pugi::xml_node testCase = parseCase();
    BOOST_TEST(attribute(testCase, "time") == "0.250000");
    for (const auto* outcome : {"failure", "error", "skipped"}) {
        BOOST_TEST(!testCase.child(outcome));
    }
}

BOOST_AUTO_TEST_CASE(aFailureHasCheckPlaceAndBothValues) {
    CaseReport& failed = addCase("send/echo", Verdict::fail);
    failed.checks = {failedCheck("payload == rpayload", "CLIENT:echo 0", "CLIENT:ECHO 0"),
                     failedCheck("jj != 0", "", "")};
    const pugi::xml_node failure = parseCase().child("failure");
    BOOST_TEST(attribute(failure, "message") ==
               "payload == rpayload, at test_ipc_initiator.cpp(199), and 1 more");
    BOOST_TEST(attribute(failure, "type") == "fail");
    BOOST_TEST(
        failure.text().get() ==
        std::string("test_ipc_initiator.cpp(199): error: check payload == rpayload has failed\n"
                    "    left:  CLIENT:echo 0\n"
                    "    right: CLIENT:ECHO 0\n"
                    "test_ipc_initiator.cpp(199): error: check jj != 0 has failed"));
}

BOOST_AUTO_TEST_CASE(aFailureHasFileAndLineOfTheFirstFailedCheck) {
    CaseReport& failed = addCase("send/echo", Verdict::fail);
    failed.checks = {failedCheck("a == b", "", ""), failedCheck("c == d", "", "")};
    failed.checks[0].passed = true;
    failed.checks[0].place = "other.cpp(3)";
    failed.checks[1].place = "tests/a (copy).cpp(199)";
    addCase("send/pass", Verdict::pass).checks = {failed.checks[0]};
    const pugi::xml_node suite = parse().child("testsuite");
    const pugi::xml_node echo = suite.find_child_by_attribute("name", "echo");
    BOOST_TEST(attribute(echo, "file") == "tests/a (copy).cpp");
    BOOST_TEST(attribute(echo, "line") == "199");
    const pugi::xml_node pass = suite.find_child_by_attribute("name", "pass");
    BOOST_TEST(pass.attribute("file").empty());
    BOOST_TEST(pass.attribute("line").empty());
}

BOOST_AUTO_TEST_CASE(ofManyFailuresTheFirstAreShown) {
    CaseReport& failed = addCase("send/echo", Verdict::fail);
    for (int i = 0; i < 60; ++i) {
        failed.checks.push_back(failedCheck("check" + std::to_string(i), "", ""));
    }
    const std::string text = parseCase().child("failure").text().get();
    checkHolds(text, "check49 has failed");
    BOOST_TEST(text.find("check50 has failed") == text.npos);
    checkHolds(text, "and 10 more");
}

BOOST_AUTO_TEST_CASE(whatTheModulePrintedIsTheErrorOutput) {
    addCase("send/echo", Verdict::pass).output = "one line\n\\x1b[31m another\n";
    BOOST_TEST(parseCase().child("system-err").text().get() ==
               std::string("one line\n\\x1b[31m another\n"));
    report.libraries.back().cases.back().output.clear();
    BOOST_TEST(!parseCase().child("system-err"));
}

BOOST_AUTO_TEST_CASE(aFailureWithoutAFailedCheckSaysWhatIsMissing) {
    CaseReport& failed = addCase("send/echo", Verdict::fail);
    failed.missing = {"10 sends must have been made; the record holds 9", "and that"};
    const pugi::xml_node failure = parseCase().child("failure");
    BOOST_TEST(attribute(failure, "message") == failed.missing.front());
    checkHolds(failure.text().get(), "and that");
}

BOOST_AUTO_TEST_CASE(aTimeOutIsAnErrorThatNamesTheCall) {
    CaseReport& hung = addCase("send/echo", Verdict::timeout);
    hung.hang = HangReport{.call = "receive",
                           .arguments = "timeout -1",
                           .seconds = 10,
                           .lastPassed = "a == b at t.cpp(3)",
                           .stacks = "#0 poll\n#1 main"};
    const pugi::xml_node error = parseCase().child("error");
    BOOST_TEST(attribute(error, "message") == "receive timeout -1 did not return within 10.0 s");
    BOOST_TEST(attribute(error, "type") == "timeout");
    checkHolds(error.text().get(), "a == b at t.cpp(3)");
    checkHolds(error.text().get(), "#0 poll\n#1 main");
}

BOOST_AUTO_TEST_CASE(aTimeOutOutsideOfACallSaysSo) {
    addCase("send/echo", Verdict::timeout).hang.emplace().seconds = 2.5;
    BOOST_TEST(attribute(parseCase().child("error"), "message") ==
               "not ended after 2.5 s; no call was under way");
}

BOOST_AUTO_TEST_CASE(aCrashAndAHarnessErrorAreErrors) {
    addCase("send/echo", Verdict::crash).crash = "ended by signal 11";
    addCase("send/next", Verdict::harnessError).missing = {"the broker is gone"};
    const pugi::xml_node suite = parse().child("testsuite");
    const pugi::xml_node crash = suite.first_element_by_path("testcase/error");
    BOOST_TEST(attribute(crash, "message") == "ended by signal 11");
    BOOST_TEST(attribute(crash, "type") == "crash");
    checkTotals(suite, "2", "0", "2", "0");
    BOOST_TEST(attribute(suite.find_child_by_attribute("name", "next").child("error"), "message") ==
               "the broker is gone");
}

BOOST_AUTO_TEST_CASE(whatWasNotRunIsAnErrorWithTheReason) {
    report.libraries.back().reason = "the 60 s were over";
    addCase("send/one", Verdict::notRun);
    addCase("send/two", Verdict::notRun).missing = {"the module ended before the case"};
    const pugi::xml_node suite = parse().child("testsuite");
    checkTotals(suite, "2", "0", "2", "0");
    const std::vector<std::pair<const char*, std::string>> reasons = {
        {"one", "the 60 s were over"}, {"two", "the module ended before the case"}};
    for (const auto& [name, reason] : reasons) {
        const pugi::xml_node error = suite.find_child_by_attribute("name", name).child("error");
        BOOST_TEST(attribute(error, "message") == reason);
        BOOST_TEST(attribute(error, "type") == "not run");
    }
}

BOOST_AUTO_TEST_CASE(aLibraryOfWhichNoCaseIsKnownIsAnError) {
    addCase("send/one", Verdict::pass);
    addLibrary("/opt/third/lib").reason = "no such folder";
    const pugi::xml_node root = parse();
    checkTotals(root, "2", "0", "1", "0");
    const pugi::xml_node suite = root.last_child();
    BOOST_TEST(attribute(suite, "name") == "/opt/third/lib");
    const pugi::xml_node error = suite.first_element_by_path("testcase/error");
    BOOST_TEST(attribute(error, "message") == "no such folder");
    BOOST_TEST(attribute(error, "type") == "not run");
}

BOOST_AUTO_TEST_CASE(whatIsKnownIsSkippedWithTheReason) {
    CaseReport& known = addCase("send/three", Verdict::fail);
    known.known = "ticket 12";
    known.checks = {failedCheck("a == b", "1", "2")};
    const pugi::xml_node suite = parse().child("testsuite");
    checkTotals(suite, "1", "0", "0", "1");
    const pugi::xml_node testCase = suite.child("testcase");
    BOOST_TEST(attribute(testCase.child("skipped"), "message") == "known failure: ticket 12");
    BOOST_TEST(!testCase.child("failure"));
}

BOOST_AUTO_TEST_CASE(theOutputIsTheRecord) {
    CaseReport& added = addCase("send/echo", Verdict::pass);
    added.repeat = "kavri conformance --case echo";
    added.checks = {failedCheck("a == b", "1", "2")};
    added.calls = {callOf("send", 1003 * ms), callOf("receive", std::nullopt),
                   callOf("response", 1003 * ms)};
    added.calls.back().kind = CallReport::Kind::delivery;
    added.faults = {{.name = "cut", .atNs = 0, .did = "cut the payload"}};
    BOOST_TEST(parseCase().child("system-out").text().get() ==
               std::string("checks: 1, failed: 1\n"
                           "     2.000 ms  send {\"uuid\":\"3\"} returned {\"status\":0}\n"
                           "     2.000 ms  receive {\"uuid\":\"3\"} did not return\n"
                           "     2.000 ms  response callback {\"uuid\":\"3\"} returned\n"
                           "fault cut: cut the payload\n"
                           "again: kavri conformance --case echo\n"));
}

BOOST_AUTO_TEST_CASE(aLongRecordShowsItsEnd) {
    CaseReport& added = addCase("send/echo", Verdict::pass);
    for (int i = 0; i < 250; ++i) {
        added.calls.push_back(callOf("call" + std::to_string(i), 1003 * ms));
    }
    const std::string text = parseCase().child("system-out").text().get();
    checkHolds(text, "50 earlier calls are left out\n");
    BOOST_TEST(text.find("call49 ") == text.npos);
    checkHolds(text, "call50 ");
    checkHolds(text, "call249 ");
}

BOOST_AUTO_TEST_CASE(whateverALibraryPutsIntoATextIsRead) {
    const std::string hostile = "<a b='c'>&amp;]]>\"\x01\x1b[31m\r\n\t\x7f";
    CaseReport& added = addCase("send/echo", Verdict::fail);
    added.checks = {failedCheck(hostile, "\xff\xc3(", "\xef\xbf\xbe\xef\xbf\xbf\xc3\xa9")};
    added.calls = {callOf("send", 1003 * ms)};
    added.calls.front().arguments = {{"payload", hostile + "\xff"}};
    const pugi::xml_node testCase = parseCase();
    const std::string readable = "<a b='c'>&amp;]]>\"\\x01\\x1b[31m\\x0d\n\t\x7f";
    const pugi::xml_node failure = testCase.child("failure");
    BOOST_TEST(attribute(failure, "message") == readable + ", at test_ipc_initiator.cpp(199)");
    checkHolds(failure.text().get(), readable);
    checkHolds(failure.text().get(), "left:  \xef\xbf\xbd\xef\xbf\xbd(\n");
    checkHolds(failure.text().get(), "right: \xef\xbf\xbd\xef\xbf\xbd\xc3\xa9");
    checkHolds(testCase.child("system-out").text().get(), "\\u0001\\u001b[31m");
}

BOOST_AUTO_TEST_CASE(noByteIsWrittenThatXmlDoesNotAllow) {
    std::string every;
    for (int byte = 1; byte < 256; ++byte) {
        every += static_cast<char>(byte);
    }
    addCase(every, Verdict::crash).crash = every;
    addCase("send/known", Verdict::fail).known = every;
    addCase("send/failed", Verdict::fail).checks = {failedCheck(every, every, every)};
    const std::string text = junitReport(report);
    for (const char c : text) {
        BOOST_TEST((static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\t'));
    }
    for (size_t at = text.find("&#"); at != text.npos; at = text.find("&#", at + 1)) {
        const std::string reference = text.substr(at, 5);
        BOOST_TEST((reference == "&#09;" || reference == "&#10;"), "there is " << reference);
    }
}

BOOST_AUTO_TEST_CASE(theFaultsAreASuiteOfTheirOwn) {
    report.libraries.clear();
    MatrixReport& matrix = report.matrix.emplace();
    matrix.faults.resize(2);
    matrix.faults[0].name = "as_said";
    matrix.faults[1].name = "unnoticed";
    matrix.faults[1].description = "loses a request";
    matrix.faults[1].wrong = {"no case noticed it", "and more"};
    const pugi::xml_node suite = parse().child("testsuite");
    checkTotals(suite, "2", "1", "0", "0");
    BOOST_TEST(attribute(suite, "name") == "faults");
    BOOST_TEST(!suite.find_child_by_attribute("name", "as_said").child("failure"));
    const pugi::xml_node failure =
        suite.find_child_by_attribute("name", "unnoticed").child("failure");
    BOOST_TEST(attribute(failure, "message") == "no case noticed it");
    BOOST_TEST(failure.text().get() ==
               std::string("loses a request\nno case noticed it\nand more"));
}

BOOST_AUTO_TEST_CASE(entriesThatAreNotTrueAreFailures) {
    report.libraries.clear();
    report.complaints = {"known.txt:1: unexpected pass", "known.txt:2: matched nothing"};
    const pugi::xml_node suite = parse().child("testsuite");
    checkTotals(suite, "2", "2", "0", "0");
    BOOST_TEST(attribute(suite, "name") == "known failures");
    BOOST_TEST(attribute(suite.child("testcase"), "name") == "known.txt:1: unexpected pass");
}

BOOST_AUTO_TEST_CASE(levelsArePropertiesOfTheSuite) {
    addCase("send/pass", Verdict::pass).level = "must";
    addCase("send/echo", Verdict::fail).level = "should";
    addCase("event/none", Verdict::pass);
    const pugi::xml_node root = parse();
    const pugi::xml_node properties = root.child("testsuite").first_child();
    BOOST_TEST(properties.name() == std::string("properties"));
    const pugi::xml_node echo = properties.find_child_by_attribute("name", "level.echo");
    BOOST_TEST(attribute(echo, "value") == "should");
    BOOST_TEST(std::distance(properties.begin(), properties.end()) == 2);
    BOOST_TEST(!root.last_child().child("properties"));
}

BOOST_AUTO_TEST_CASE(aReportOfNothingIsReadToo) {
    report.libraries.clear();
    checkTotals(parse(), "0", "0", "0", "0");
}

BOOST_AUTO_TEST_SUITE_END()
