// The module's log, read as it comes: bytes in, events out.
#define BOOST_TEST_MODULE moduleLog

#include "cli/module_log.h"

#include <boost/test/unit_test.hpp>
#include <ostream>
#include <string>
#include <vector>

using kavri::cli::LogEvent;
using kavri::cli::ModuleLog;
using Kind = kavri::cli::LogEvent::Kind;
using std::chrono::microseconds;

namespace kavri::cli {

static bool operator==(const LogEvent& a, const LogEvent& b) {
    return a.kind == b.kind && a.name == b.name && a.text == b.text && a.time == b.time;
}

static std::ostream& operator<<(std::ostream& stream, const LogEvent& event) {
    stream << '{' << static_cast<int>(event.kind) << " name '" << event.name << "' text '"
           << event.text << '\'';
    if (event.time) {
        stream << ' ' << event.time->count() << " us";
    }
    return stream << '}';
}

}  // namespace kavri::cli

namespace {

using Events = std::vector<LogEvent>;

Events eventsOf(const std::string& text) {
    ModuleLog log;
    Events events = log.read(text);
    for (LogEvent& event : log.finish()) {
        events.push_back(std::move(event));
    }
    return events;
}

void checkEvents(const Events& found, const Events& expected) {
    BOOST_CHECK_EQUAL_COLLECTIONS(found.begin(), found.end(), expected.begin(), expected.end());
}

// The lines in which every case of these tests stands.
const std::string caseBegin =
    "Entering test module \"m\"\n"
    "t.cpp(5): Entering test suite \"s\"\n"
    "t.cpp(7): Entering test case \"c\"\n";
const LogEvent began = {Kind::caseBegan, "s/c", "", {}};

// What a log says after the lines above.
Events eventsInCase(const std::string& text) {
    Events events = eventsOf(caseBegin + text);
    BOOST_REQUIRE(!events.empty());
    BOOST_CHECK_EQUAL(events.front(), began);
    events.erase(events.begin());
    return events;
}

const std::string wholeLog =
    "Running 2 test cases...\n"
    "Entering test module \"m\"\n"
    "t.cpp(5): Entering test suite \"s\"\n"
    "t.cpp(7): Entering test case \"first\"\n"
    "t.cpp(8): info: check 1 == 1 has passed\n"
    "t.cpp(9): error: in \"s/first\": check a == b has failed [x\ny != z]\n"
    "t.cpp(7): Leaving test case \"first\"; testing time: 123us\n"
    "t.cpp(5): Leaving test suite \"s\"; testing time: 130us\n"
    "t.cpp(15): Entering test suite \"other\"\n"
    "t.cpp(17): Entering test case \"second\"\n"
    "t.cpp(17): Leaving test case \"second\"; testing time: 2ms\n"
    "t.cpp(15): Leaving test suite \"other\"; testing time: 2010us\n"
    "Leaving test module \"m\"; testing time: 3ms\n";

const Events wholeEvents = {
    {Kind::caseBegan, "s/first", "", {}},
    {Kind::checkPassed, "", "t.cpp(8): check 1 == 1", {}},
    {Kind::checkFailed,
     "",
     "t.cpp(9): error: in \"s/first\": check a == b has failed [x\ny != z]",
     {}},
    {Kind::caseEnded, "s/first", "", microseconds(123)},
    {Kind::caseBegan, "other/second", "", {}},
    {Kind::caseEnded, "other/second", "", microseconds(2000)},
};

}  // namespace

BOOST_AUTO_TEST_CASE(aWholeLogIsRead) {
    checkEvents(eventsOf(wholeLog), wholeEvents);
}

BOOST_AUTO_TEST_CASE(aLogMayArriveInPiecesOfAnySize) {
    for (size_t size = 1; size <= 50; ++size) {
        ModuleLog log;
        Events events;
        for (size_t start = 0; start < wholeLog.size(); start += size) {
            for (LogEvent& event : log.read(wholeLog.substr(start, size))) {
                events.push_back(std::move(event));
            }
        }
        BOOST_TEST_INFO("pieces of " << size << " bytes");
        checkEvents(events, wholeEvents);
    }
}

BOOST_AUTO_TEST_CASE(anEventIsThereAsSoonAsItsLineIsWhole) {
    ModuleLog log;
    log.read(caseBegin);
    checkEvents(log.read("t.cpp(8): info: check 1 == 1 has passed"), {});
    checkEvents(log.read("\n"), {{Kind::checkPassed, "", "t.cpp(8): check 1 == 1", {}}});
    checkEvents(log.read("t.cpp(7): Leaving test case \"c\"\n"),
                {{Kind::caseEnded, "s/c", "", {}}});
}

BOOST_AUTO_TEST_CASE(aFailureIsCompleteWhenTheNextEntryBegins) {
    ModuleLog log;
    log.read(caseBegin);
    checkEvents(log.read("t.cpp(9): error: in \"s/c\": check a == b has failed [1\n"), {});
    checkEvents(log.read(" != 2]\n"), {});
    checkEvents(log.read("t.cpp(10): info: check c has passed\n"),
                {{Kind::checkFailed,
                  "",
                  "t.cpp(9): error: in \"s/c\": check a == b has failed [1\n != 2]",
                  {}},
                 {Kind::checkPassed, "", "t.cpp(10): check c", {}}});
}

BOOST_AUTO_TEST_CASE(aFailureIsCompleteWhenTheLogEnds) {
    checkEvents(
        eventsInCase("t.cpp(9): error: in \"s/c\": check a == b has failed [1\n"),
        {{Kind::checkFailed, "", "t.cpp(9): error: in \"s/c\": check a == b has failed [1", {}}});
}

BOOST_AUTO_TEST_CASE(aLineCutOffByTheEndOfTheLogIsRead) {
    checkEvents(eventsInCase("t.cpp(8): info: check 1 == 1 has passed"),
                {{Kind::checkPassed, "", "t.cpp(8): check 1 == 1", {}}});
}

BOOST_AUTO_TEST_CASE(blankLinesWithinAValueAreKept) {
    checkEvents(eventsInCase("t.cpp(9): error: in \"s/c\": check a == b has failed [\n\n != 2]\n"
                             "t.cpp(7): Leaving test case \"c\"; testing time: 9us\n"),
                {{Kind::checkFailed,
                  "",
                  "t.cpp(9): error: in \"s/c\": check a == b has failed [\n\n != 2]",
                  {}},
                 {Kind::caseEnded, "s/c", "", microseconds(9)}});
}

BOOST_AUTO_TEST_CASE(aFatalCheckIsAFailedCheck) {
    const std::string entry =
        "t.cpp(9): fatal error: in \"s/c\": critical check c != __null has failed";
    checkEvents(eventsInCase(entry + "\n"), {{Kind::checkFailed, "", entry, {}}});
}

BOOST_AUTO_TEST_CASE(anExceptionAbortsTheCaseAndKeepsItsCheckpoint) {
    checkEvents(
        eventsInCase("unknown location(0): fatal error: in \"s/c\": std::runtime_error: lost\n"
                     "t.cpp(10): last checkpoint: \"c\" test entry\n"
                     "t.cpp(7): Leaving test case \"c\"; testing time: 9us\n"),
        {{Kind::caseAborted,
          "",
          "unknown location(0): fatal error: in \"s/c\": std::runtime_error: lost; "
          "t.cpp(10): last checkpoint: \"c\" test entry",
          {}},
         {Kind::caseEnded, "s/c", "", microseconds(9)}});
}

BOOST_AUTO_TEST_CASE(theExpressionMayHoldParenthesesQuotesAndColons) {
    checkEvents(
        eventsInCase("a(1)/t.cpp(12): info: check f(\"x(3): \") == g(a, 2): b has passed\n"),
        {{Kind::checkPassed, "", "a(1)/t.cpp(12): check f(\"x(3): \") == g(a, 2): b", {}}});
}

BOOST_AUTO_TEST_CASE(nestedSuitesNameTheCase) {
    checkEvents(eventsOf("t.cpp(1): Entering test suite \"a\"\n"
                         "t.cpp(2): Entering test suite \"b\"\n"
                         "t.cpp(3): Entering test case \"c\"\n"
                         "t.cpp(3): Leaving test case \"c\"\n"
                         "t.cpp(2): Leaving test suite \"b\"\n"
                         "t.cpp(4): Entering test case \"d\"\n"),
                {{Kind::caseBegan, "a/b/c", "", {}},
                 {Kind::caseEnded, "a/b/c", "", {}},
                 {Kind::caseBegan, "a/d", "", {}}});
}

BOOST_AUTO_TEST_CASE(skippedCasesAreToldWithTheReason) {
    checkEvents(eventsOf("t.cpp(3): Test case \"s/c\" is skipped because disabled\n"
                         "t.cpp(1): Test suite \"s\" is skipped because disabled\n"),
                {{Kind::caseSkipped, "s/c", "disabled", {}}});
}

BOOST_AUTO_TEST_CASE(aWarningIsARemark) {
    const std::string entry = "t.cpp(9): warning: in \"s/c\": condition x is not satisfied";
    checkEvents(eventsInCase(entry + "\n"), {{Kind::remark, "", entry, {}}});
}

BOOST_AUTO_TEST_CASE(whateverElseIsSaidIsKeptAsARemark) {
    checkEvents(eventsOf("Platform: linux\n\nTest is aborted\n"),
                {{Kind::remark, "", "Platform: linux", {}}, {Kind::remark, "", "", {}}});
}

BOOST_AUTO_TEST_CASE(anUnreadableTimeIsNone) {
    for (const std::string time : {"", "; testing time: us", "; testing time: 12", "; time: 1us"}) {
        checkEvents(eventsInCase("t.cpp(7): Leaving test case \"c\"" + time + "\n"),
                    {{Kind::caseEnded, "s/c", "", {}}});
    }
}
