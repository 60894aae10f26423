// What a report comes to: the exit status, and the line that says why there is no more.
#define BOOST_TEST_MODULE runResult

#include "conformance/run/run_result.h"

#include <boost/test/unit_test.hpp>
#include <ostream>

using kavri::conformance::BaselineComparison;
using kavri::conformance::CaseReport;
using kavri::conformance::cutOffText;
using kavri::conformance::exitStatusOf;
using kavri::conformance::HangReport;
using kavri::conformance::LibraryReport;
using kavri::conformance::Report;
using kavri::conformance::Verdict;
using kavri::conformance::whyNotRun;
using kavri::process::ExitStatus;

namespace kavri::process {

static std::ostream& operator<<(std::ostream& stream, ExitStatus status) {
    return stream << static_cast<int>(status);
}

}  // namespace kavri::process

namespace {

CaseReport caseWith(const std::string& name, Verdict verdict) {
    CaseReport report;
    report.name = name;
    report.verdict = verdict;
    return report;
}

Report reportOf(const std::vector<CaseReport>& cases) {
    LibraryReport library;
    library.cases = cases;
    Report report;
    report.libraries.push_back(library);
    return report;
}

Report reportOf(Verdict verdict) {
    return reportOf({caseWith("s/passes", Verdict::pass), caseWith("s/c", verdict)});
}

BaselineComparison noWorse() {
    return {};
}

BaselineComparison worse() {
    BaselineComparison comparison;
    comparison.newlyFailing.push_back({"library", "s/c", {"crash"}});
    return comparison;
}

}  // namespace

BOOST_AUTO_TEST_SUITE(exitStatus)

BOOST_AUTO_TEST_CASE(itIsThatOfTheWorstCase) {
    BOOST_TEST(exitStatusOf(reportOf(Verdict::pass), {}) == ExitStatus::passed);
    BOOST_TEST(exitStatusOf(reportOf(Verdict::fail), {}) == ExitStatus::failed);
    BOOST_TEST(exitStatusOf(reportOf(Verdict::timeout), {}) == ExitStatus::ended);
    BOOST_TEST(exitStatusOf(reportOf(Verdict::crash), {}) == ExitStatus::ended);
    BOOST_TEST(exitStatusOf(reportOf(Verdict::notRun), {}) == ExitStatus::couldNotRun);
    BOOST_TEST(exitStatusOf(reportOf(Verdict::harnessError), {}) == ExitStatus::couldNotRun);
}

BOOST_AUTO_TEST_CASE(whyALibraryWasNotRunComesBeforeTheVerdictsOfTheOthers) {
    BOOST_TEST(exitStatusOf(reportOf(Verdict::fail), ExitStatus::usage) == ExitStatus::usage);
}

BOOST_AUTO_TEST_CASE(withABaselineOnlyWhatIsWorseCounts) {
    Report report = reportOf(Verdict::crash);
    report.baseline = noWorse();
    BOOST_TEST(exitStatusOf(report, {}) == ExitStatus::passed);
    report.baseline = worse();
    BOOST_TEST(exitStatusOf(report, {}) == ExitStatus::failed);
}

BOOST_AUTO_TEST_CASE(withABaselineKnownFailuresThatAreNoLongerTrueCountToo) {
    Report report = reportOf(Verdict::pass);
    report.baseline = noWorse();
    report.complaints.emplace_back("s/c is expected to fail, and passed");
    BOOST_TEST(exitStatusOf(report, {}) == ExitStatus::failed);
}

BOOST_AUTO_TEST_CASE(aBaselineSaysNothingOfWhatCouldNotBeRun) {
    Report report = reportOf(Verdict::notRun);
    report.baseline = noWorse();
    BOOST_TEST(exitStatusOf(report, {}) == ExitStatus::couldNotRun);
    BOOST_TEST(exitStatusOf(report, ExitStatus::usage) == ExitStatus::usage);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(texts)

BOOST_AUTO_TEST_CASE(theFirstCaseThatWasCutOffIsNamed) {
    CaseReport known = caseWith("s/known", Verdict::crash);
    known.known = "is being mended";
    CaseReport crashed = caseWith("s/crashed", Verdict::crash);
    crashed.crash = "the module was ended by SIGSEGV";
    const CaseReport failed = caseWith("s/failed", Verdict::fail);
    BOOST_TEST(cutOffText(reportOf({known, failed, crashed})) ==
               "s/crashed: the module was ended by SIGSEGV");
    BOOST_TEST(cutOffText(reportOf({known, failed})) == "");
}

BOOST_AUTO_TEST_CASE(aCaseThatHungSaysInWhichCall) {
    CaseReport hung = caseWith("s/hung", Verdict::timeout);
    hung.hang =
        HangReport{.call = "f", .arguments = "{}", .seconds = 10, .lastPassed = "", .stacks = ""};
    BOOST_TEST(cutOffText(reportOf({hung})) ==
               "s/hung: f with {} did not return within 10.0 s; no check had passed");
    hung.hang.reset();
    hung.missing.emplace_back("the module did nothing after the case");
    BOOST_TEST(cutOffText(reportOf({hung})) == "s/hung: the module did nothing after the case");
}

BOOST_AUTO_TEST_CASE(theFirstCaseThatWasNotRunSaysWhy) {
    LibraryReport library;
    library.cases = {caseWith("s/a", Verdict::pass)};
    BOOST_TEST(whyNotRun(library) == "");
    library.cases.push_back(caseWith("s/b", Verdict::notRun));
    BOOST_TEST(whyNotRun(library) == "s/b was not run");
    library.cases.back().missing.emplace_back("the module hangs");
    BOOST_TEST(whyNotRun(library) == "the module hangs");
}

BOOST_AUTO_TEST_SUITE_END()
