// What a run's events and log entries add up to.
#define BOOST_TEST_MODULE runRecord

#include "cli/run_record.h"

#include <boost/test/unit_test.hpp>

using kavri::cli::CaseRecord;
using kavri::cli::RunRecord;
using kavri::cli::Verdict;
using Kind = kavri::cli::ModuleEvent::Kind;
using std::chrono::microseconds;

namespace {

// A record, the time in its run, and a case under way in it.
struct CaseUnderWay {
    RunRecord record;
    RunRecord::Clock::time_point now{};

    CaseUnderWay() { record.add({Kind::began, "s/c"}, now); }

    const CaseRecord& endCase() {
        const CaseRecord* ended = record.add({Kind::ended, "s/c", microseconds(5)}, now);
        BOOST_REQUIRE(ended != nullptr);
        return *ended;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(runRecord, CaseUnderWay)

BOOST_AUTO_TEST_CASE(aCaseWithNoFailedCheckHasPassed) {
    for (int i = 0; i < 3; ++i) {
        BOOST_TEST(record.add({Kind::passed, "t.cpp(1)"}, now) == nullptr);
    }
    const CaseRecord& ended = endCase();
    BOOST_TEST(ended.name == "s/c");
    BOOST_TEST((ended.verdict == Verdict::passed));
    BOOST_TEST(ended.checks() == 3U);
    BOOST_TEST(ended.time.count() == 5);
    BOOST_TEST(ended.isComplete());
    BOOST_TEST(record.underWay() == nullptr);
    BOOST_TEST(record.casesPassed() == 1U);
}

BOOST_AUTO_TEST_CASE(aFailedCheckFailsItsCase) {
    record.add({Kind::failed, "t.cpp(1)"}, now);
    record.add({Kind::passed, "t.cpp(2)"}, now);
    BOOST_TEST((endCase().verdict == Verdict::failed));
    BOOST_TEST(record.casesPassed() == 0U);
    BOOST_TEST(record.checksPassed() == 1U);
    BOOST_TEST(record.checksFailed() == 1U);
}

BOOST_AUTO_TEST_CASE(anExceptionAbortsItsCase) {
    record.add({Kind::aborted, ""}, now);
    record.add({Kind::failed, "t.cpp(1)"}, now);
    BOOST_TEST((endCase().verdict == Verdict::aborted));
}

BOOST_AUTO_TEST_CASE(howFarACaseGotIsKnown) {
    BOOST_TEST(record.underWay()->reached == "");
    record.add({Kind::reached, "t.cpp(1)"}, now);
    record.add({Kind::passed, "t.cpp(1)"}, now);
    record.add({Kind::reached, "t.cpp(2)"}, now);
    record.add({Kind::failed, "t.cpp(2)"}, now);
    record.add({Kind::reached, "t.cpp(3)"}, now);
    BOOST_TEST(record.underWay()->lastPassed == "t.cpp(1)");
    BOOST_TEST(record.underWay()->reached == "t.cpp(3)");
}

BOOST_AUTO_TEST_CASE(aCaseThatIsCutOffIsTimedByTheClock) {
    record.add({Kind::passed, "t.cpp(1)"}, now);
    const CaseRecord& cutOff = record.cutOff(Verdict::hung, now + microseconds(70));
    BOOST_TEST((cutOff.verdict == Verdict::hung));
    BOOST_TEST(cutOff.time.count() == 70);
    BOOST_TEST(!cutOff.isComplete());
    BOOST_TEST(record.cases().size() == 1U);
    BOOST_TEST(record.underWay() == nullptr);
}

BOOST_AUTO_TEST_CASE(logEntriesStandWithTheCaseThatTheyName) {
    record.add({"s/c", "one"});
    record.add({"s/later", "of the next case"});
    record.add({"s/c", "two"});
    const std::vector<std::string> expected = {"one", "two"};
    BOOST_TEST(endCase().failures == expected, boost::test_tools::per_element());
    BOOST_TEST(record.unclaimed().size() == 1U);
    record.add({Kind::began, "s/later"}, now);
    const CaseRecord& later = record.cutOff(Verdict::crashed, now);
    BOOST_TEST(later.failures.size() == 1U);
    BOOST_TEST(record.unclaimed().empty());
}

BOOST_AUTO_TEST_CASE(whatHappensOutsideOfACaseCountsForNone) {
    endCase();
    BOOST_TEST(record.add({Kind::passed, "t.cpp(1)"}, now) == nullptr);
    BOOST_TEST(record.add({Kind::ended, "s/c", microseconds(1)}, now) == nullptr);
    BOOST_TEST(record.cases().size() == 1U);
    BOOST_TEST(record.checksPassed() == 0U);
}

BOOST_AUTO_TEST_SUITE_END()
