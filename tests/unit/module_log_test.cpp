// The module's log, read as it comes: bytes in, entries out.
#define BOOST_TEST_MODULE moduleLog

#include "cli/module_log.h"

#include <boost/test/unit_test.hpp>
#include <ostream>

using kavri::cli::LogEntry;
using kavri::cli::ModuleLog;

namespace kavri::cli {

static bool operator==(const LogEntry& a, const LogEntry& b) {
    return a.caseName == b.caseName && a.text == b.text;
}

static std::ostream& operator<<(std::ostream& stream, const LogEntry& entry) {
    return stream << "{'" << entry.caseName << "' '" << entry.text << "'}";
}

}  // namespace kavri::cli

namespace {

using Entries = std::vector<LogEntry>;

void checkEntries(const Entries& found, const Entries& expected) {
    BOOST_CHECK_EQUAL_COLLECTIONS(found.begin(), found.end(), expected.begin(), expected.end());
}

// What is read in pieces of this size, to the end.
Entries entriesOf(const std::string& text, size_t size) {
    ModuleLog log;
    Entries entries;
    const auto keep = [&](Entries more) {
        entries.insert(entries.end(), more.begin(), more.end());
    };
    for (size_t start = 0; start < text.size(); start += size) {
        keep(log.read(text.substr(start, size)));
    }
    keep(log.finish());
    return entries;
}

void checkLog(const std::string& text, const Entries& expected) {
    for (const size_t size : {size_t{1}, size_t{2}, size_t{7}, size_t{64}, text.size()}) {
        BOOST_TEST_INFO("pieces of " << size << " bytes");
        checkEntries(entriesOf(text, size), expected);
    }
}

const std::string first = "t.cpp(9): error: in \"s/c\": check a == b has failed [1 != 2]";
const std::string second = "t.cpp(12): error: in \"s/d\": check f(\"x(3): \") has failed";

}  // namespace

BOOST_AUTO_TEST_CASE(eachFailureIsAnEntryOfItsCase) {
    checkLog("Running 2 test cases...\n" + first + "\n" + second + "\n",
             {{"s/c", first}, {"s/d", second}});
}

BOOST_AUTO_TEST_CASE(anEntryIsCompleteWhenTheNextOneBegins) {
    ModuleLog log;
    checkEntries(log.read(first + "\n"), {});
    checkEntries(log.read(second + "\n"), {{"s/c", first}});
}

BOOST_AUTO_TEST_CASE(anEntryIsCompleteWhenItsCaseHasEnded) {
    ModuleLog log;
    log.read(first + "\n");
    checkEntries(log.complete("s/another"), {});
    checkEntries(log.complete("s/c"), {{"s/c", first}});
    checkEntries(log.complete("s/c"), {});
}

BOOST_AUTO_TEST_CASE(anEntryIsCompleteWhenTheLogEndsEvenWithinALine) {
    ModuleLog log;
    checkEntries(log.read(first + "\n" + second), {});
    checkEntries(log.finish(), {{"s/c", first}, {"s/d", second}});
    checkEntries(log.finish(), {});
}

BOOST_AUTO_TEST_CASE(lineBreaksWithinAValueAreKept) {
    const std::string broken =
        "t.cpp(9): error: in \"s/c\": check a == b has failed [\n\nx != y\n]";
    checkLog(broken + "\n" + second + "\n", {{"s/c", broken}, {"s/d", second}});
}

BOOST_AUTO_TEST_CASE(aFatalCheckIsAnEntry) {
    const std::string fatal =
        "t.cpp(9): fatal error: in \"s/c\": critical check c != __null has failed";
    checkLog(fatal + "\n", {{"s/c", fatal}});
}

BOOST_AUTO_TEST_CASE(anExceptionKeepsItsCheckpoint) {
    checkLog(
        "unknown location(0): fatal error: in \"s/c\": std::runtime_error: lost\n"
        "t.cpp(10): last checkpoint: \"c\" test entry\n",
        {{"s/c",
          "unknown location(0): fatal error: in \"s/c\": std::runtime_error: lost; "
          "t.cpp(10): last checkpoint: \"c\" test entry"}});
}

BOOST_AUTO_TEST_CASE(aPathMayHoldParentheses) {
    const std::string entry = "a(1)/b (x)/t.cpp(12): error: in \"s/c\": check b has failed";
    checkLog(entry + "\n", {{"s/c", entry}});
}

BOOST_AUTO_TEST_CASE(whatStandsBeforeTheFirstEntryIsAboutNoCase) {
    checkLog("Platform: linux\n\nRunning 1 test case...\nTest is aborted\n",
             {{"", "Platform: linux"}, {"", ""}});
}
