// How often messages may be logged, and as what.
#define BOOST_TEST_MODULE logLimiter

#include "broker/log/log_limiter.h"

#include <boost/test/unit_test.hpp>

using namespace kavri::broker;

namespace {

const LogLimiter::Clock::time_point begin{std::chrono::hours(1)};
constexpr auto period = LogLimiter::period;

std::size_t admittedOf(LogLimiter& limiter, std::size_t count, const std::string& message,
                       LogLimiter::Clock::time_point now = begin) {
    std::size_t admitted = 0;
    for (std::size_t i = 0; i < count; ++i) {
        admitted += limiter.admit(message, now) ? 1 : 0;
    }
    return admitted;
}

}  // namespace

BOOST_AUTO_TEST_CASE(numbersAndQuotedTextMakeNoKind) {
    BOOST_TEST(kindOfMessage("process 12 of user 0") == "process # of user #");
    BOOST_TEST(kindOfMessage("a \"name\" here") == "a \"...\" here");
    BOOST_TEST(kindOfMessage("a \"na\" me\" here") == "a \"...\" here");
    BOOST_TEST(kindOfMessage("one \" only") == "one \"...\" only");
    BOOST_TEST(kindOfMessage("").empty());
}

BOOST_AUTO_TEST_CASE(aKindIsAdmittedSoManyTimesInAPeriodThenCounted) {
    LogLimiter limiter;
    std::size_t admitted = 0;
    for (int i = 0; i < 1000; ++i) {
        admitted += limiter.admit("process " + std::to_string(i), begin) ? 1 : 0;
    }
    BOOST_TEST(admitted == LogLimiter::messagesOfAKind);
    BOOST_TEST(limiter.takeSummaries(begin + period - std::chrono::seconds(1)).empty());
    const auto summaries = limiter.takeSummaries(begin + period);
    BOOST_REQUIRE(summaries.size() == 1U);
    BOOST_TEST(summaries[0] == "... and 990 more in 10 s: process #");
    BOOST_TEST(!limiter.nextSummary().has_value());
    BOOST_TEST(limiter.admit("process 1", begin + period));
}

BOOST_AUTO_TEST_CASE(oneKindLeavesRoomForOthers) {
    LogLimiter limiter;
    admittedOf(limiter, 1000, "one");
    BOOST_TEST(limiter.admit("two", begin));
}

BOOST_AUTO_TEST_CASE(withoutRepeatsThereIsNothingToWakeFor) {
    LogLimiter limiter;
    admittedOf(limiter, LogLimiter::messagesOfAKind, "one");
    BOOST_TEST(!limiter.nextSummary().has_value());
    limiter.admit("one", begin + std::chrono::seconds(1));
    BOOST_TEST((limiter.nextSummary() == begin + period));
}

BOOST_AUTO_TEST_CASE(aSummaryThatIsLateSaysHowLate) {
    LogLimiter limiter;
    admittedOf(limiter, 20, "one");
    BOOST_TEST(!limiter.admit("one", begin + 3 * period));
    const auto summaries = limiter.takeSummaries(begin + 3 * period);
    BOOST_REQUIRE(summaries.size() == 1U);
    BOOST_TEST(summaries[0] == "... and 11 more in 30 s: one");
}

BOOST_AUTO_TEST_CASE(theEndTakesWhatIsNotDueYet) {
    LogLimiter limiter;
    admittedOf(limiter, 11, "one");
    BOOST_TEST(limiter.takeAllSummaries(begin + std::chrono::seconds(1)).size() == 1U);
    BOOST_TEST(limiter.takeAllSummaries(begin + std::chrono::seconds(1)).empty());
}

BOOST_AUTO_TEST_CASE(allKindsTogetherAreLimited) {
    LogLimiter limiter;
    std::size_t admitted = 0;
    for (char c = 'A'; c <= 'z'; ++c) {
        admitted += admittedOf(limiter, LogLimiter::messagesOfAKind, std::string(1, c));
    }
    BOOST_TEST(admitted == LogLimiter::messagesInAll);
    BOOST_TEST(limiter.admit("later", begin + period));
}

BOOST_AUTO_TEST_CASE(kindsWithoutEndShareOne) {
    LogLimiter limiter;
    for (std::size_t i = 0; i < 10'000; ++i) {
        limiter.admit(std::string(1 + i, 'x'), begin);
    }
    BOOST_TEST(limiter.takeSummaries(begin + period).size() <= LogLimiter::kindsInAll + 1);
}

BOOST_AUTO_TEST_CASE(onlyPrintableAsciiIsPrinted) {
    BOOST_TEST(printable("plain ~ text") == "plain ~ text");
    BOOST_TEST(printable("a\nb\x1b[31m\x7f\xc3") == "a\\x0ab\\x1b[31m\\x7f\\xc3");
}

BOOST_AUTO_TEST_CASE(aLongTextIsCutOff) {
    const std::string longest(longestPrintedBytes, 'x');
    BOOST_TEST(printable(longest) == longest);
    BOOST_TEST(printable(longest + "x") == longest + "...");
    BOOST_TEST(printable(std::string(1 << 20, '\n')).size() < longestPrintedBytes + 10);
}
