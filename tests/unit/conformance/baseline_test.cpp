// An earlier run as the measure of this one: what counts as newly failing, newly passing,
// missing and slower, and which files are refused.
#define BOOST_TEST_MODULE baseline

#include "conformance/report/baseline.h"

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "process/exit_status.h"
#include "process/temporary_folder.h"

using namespace kavri::conformance;
using kavri::process::CommandFailure;
using kavri::process::ExitStatus;

namespace {

using Cases = std::vector<BaselineComparison::Case>;
using Texts = std::vector<std::string>;

CaseReport ended(const std::string& name, Verdict verdict, const Texts& failedChecks = {}) {
    CaseReport report;
    report.name = name;
    report.verdict = verdict;
    report.checks.emplace_back().passed = true;
    for (const std::string& text : failedChecks) {
        report.checks.emplace_back().text = text;
    }
    return report;
}

Report reportOf(const std::vector<CaseReport>& cases, const std::string& library = "lib") {
    Report report;
    report.date = "2026-11-20T12:00:00Z";
    report.libraries.emplace_back().name = library;
    report.libraries.back().cases = cases;
    return report;
}

// A case of so many calls that each took so long.
CaseReport withCalls(const std::string& function, const std::vector<std::int64_t>& microseconds) {
    CaseReport report = ended("a", Verdict::pass);
    for (const std::int64_t us : microseconds) {
        CallReport& call = report.calls.emplace_back();
        call.function = function;
        call.endNs = us * 1000;
    }
    return report;
}

std::string listed(const Cases& cases) {
    std::string text;
    for (const BaselineComparison::Case& one : cases) {
        text += (text.empty() ? "" : ", ") + one.name;
        for (const std::string& way : one.ways) {
            text += " by " + way;
        }
    }
    return text;
}

struct Earlier {
    kavri::process::TemporaryFolder folder;
    std::string path = folder / "earlier.json";

    Baseline read(const std::string& text) const {
        std::ofstream(path) << text;
        return Baseline::read(path);
    }

    BaselineComparison compare(const Report& earlier, const Report& now) const {
        return read(toJson(earlier).dump()).compare(now, [](const std::string& name) {
            return name != "unselected";
        });
    }

    BaselineComparison compare(const CaseReport& earlier, const CaseReport& now) const {
        return compare(reportOf({earlier}), reportOf({now}));
    }

    bool isSlower(const std::vector<std::int64_t>& earlier,
                  const std::vector<std::int64_t>& now) const {
        return !compare(withCalls("send", earlier), withCalls("send", now)).slower.empty();
    }

    void checkRefused(const std::string& text, const std::string& complaint) const {
        BOOST_CHECK_EXCEPTION(read(text), CommandFailure, [&](const CommandFailure& failure) {
            const std::string line = failure.what();
            BOOST_TEST(line.starts_with(path + ": " + complaint + "; "), line);
            return failure.status() == ExitStatus::usage;
        });
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(baselines, Earlier)

BOOST_AUTO_TEST_CASE(theSameIsNoWorse) {
    const Report same = reportOf({ended("a", Verdict::pass), ended("b", Verdict::fail, {"x == y"}),
                                  ended("c", Verdict::crash)});
    const BaselineComparison result = compare(same, same);
    BOOST_TEST(!result.isWorse());
    BOOST_TEST(listed(result.stillFailing) == "b by x == y, c by crash");
    BOOST_TEST(listed(result.newlyFailing) + listed(result.newlyPassing) + listed(result.missing) ==
               "");
    BOOST_TEST(result.file == path);
    BOOST_TEST(result.date == "2026-11-20T12:00:00Z");
}

BOOST_AUTO_TEST_CASE(whatPassedAndFailsNowIsNewlyFailing) {
    const CaseReport passed = ended("a", Verdict::pass);
    CaseReport lacking = ended("a", Verdict::fail);
    lacking.missing = {"10 sends"};
    const std::vector<std::pair<CaseReport, std::string>> expected = {
        {ended("a", Verdict::fail, {"x == y", "x == y"}), "a by x == y"},
        {ended("a", Verdict::timeout), "a by timeout"},
        {ended("a", Verdict::crash), "a by crash"},
        {lacking, "a by record"}};
    for (const auto& [now, text] : expected) {
        const BaselineComparison result = compare(passed, now);
        BOOST_TEST(listed(result.newlyFailing) == text);
        BOOST_TEST(result.isWorse());
    }
}

BOOST_AUTO_TEST_CASE(aFailureByAnotherCheckIsNew) {
    const BaselineComparison result = compare(ended("a", Verdict::fail, {"x == y"}),
                                              ended("a", Verdict::fail, {"u == v", "x == y"}));
    BOOST_TEST(listed(result.newlyFailing) == "a by u == v");
    BOOST_TEST(listed(result.stillFailing) == "a by x == y");
    BOOST_TEST(listed(compare(ended("a", Verdict::fail, {"x == y"}), ended("a", Verdict::crash))
                          .newlyFailing) == "a by crash");
}

BOOST_AUTO_TEST_CASE(aCaseThatWasNotThereMustPass) {
    const Report earlier = reportOf({ended("a", Verdict::pass)});
    const Report now = reportOf({ended("a", Verdict::pass), ended("new", Verdict::fail, {"x"})});
    BOOST_TEST(listed(compare(earlier, now).newlyFailing) == "new by x");
}

BOOST_AUTO_TEST_CASE(whatFailedAndPassesNowIsNewlyPassing) {
    const BaselineComparison result =
        compare(ended("a", Verdict::fail, {"x == y"}), ended("a", Verdict::pass));
    BOOST_TEST(listed(result.newlyPassing) == "a by x == y");
    BOOST_TEST(!result.isWorse());
}

BOOST_AUTO_TEST_CASE(aKnownFailureIsNotNew) {
    CaseReport known = ended("a", Verdict::fail, {"x == y"});
    known.known = "ticket 12";
    BOOST_TEST(!compare(ended("a", Verdict::pass), known).isWorse());
}

BOOST_AUTO_TEST_CASE(aSelectedCaseThatIsNotThereAnyMoreIsMissing) {
    const Report earlier = reportOf({ended("a", Verdict::pass), ended("gone", Verdict::fail),
                                     ended("idle", Verdict::pass), ended("unselected", {})});
    const BaselineComparison result =
        compare(earlier, reportOf({ended("a", Verdict::pass), ended("idle", Verdict::notRun)}));
    BOOST_TEST(listed(result.missing) == "gone, idle");
    BOOST_TEST(result.isWorse());
}

BOOST_AUTO_TEST_CASE(oneLibraryIsComparedWithOneWhereverItLies) {
    const BaselineComparison result =
        compare(reportOf({ended("a", Verdict::fail, {"x"})}, "old/lib"),
                reportOf({ended("a", Verdict::fail, {"x"})}, "new/lib"));
    BOOST_TEST(!result.isWorse());
}

BOOST_AUTO_TEST_CASE(severalLibrariesAreComparedByName) {
    Report earlier = reportOf({ended("a", Verdict::fail, {"x"})}, "one");
    earlier.libraries.push_back(reportOf({ended("a", Verdict::pass)}, "two").libraries[0]);
    Report now = reportOf({ended("a", Verdict::fail, {"x"})}, "two");
    now.libraries.push_back(reportOf({ended("a", Verdict::fail, {"x"})}, "three").libraries[0]);
    const BaselineComparison result = compare(earlier, now);
    BOOST_REQUIRE_EQUAL(result.newlyFailing.size(), 2U);
    BOOST_TEST(result.newlyFailing[0].library == "two");
    BOOST_TEST(result.newlyFailing[1].library == "three");
    const Texts lines = comparisonLines(result);
    BOOST_TEST(lines[1] == "  newly failing  two: a: x");
}

BOOST_AUTO_TEST_CASE(aFunctionIsSlowerWhereHalfOfItsCallsAreMuchSlower) {
    const std::vector<std::int64_t> ten(10, 100);
    BOOST_TEST(!isSlower(ten, ten));
    BOOST_TEST(isSlower(ten, std::vector<std::int64_t>(10, 400)));
    // Less than three times as long, or by so little that a busy machine may be the reason.
    BOOST_TEST(!isSlower(ten, std::vector<std::int64_t>(10, 280)));
    BOOST_TEST(!isSlower(std::vector<std::int64_t>(10, 5), std::vector<std::int64_t>(10, 240)));
    // A few slow calls.
    BOOST_TEST(!isSlower(ten, {100, 100, 100, 100, 100, 100, 9000, 9000, 9000, 9000}));
    BOOST_TEST(!isSlower(ten, {90, 90, 9000, 9000, 9000, 9000, 9000, 9000, 9000, 9000}));
    // As slow as a few were before.
    BOOST_TEST(!isSlower({100, 100, 100, 100, 100, 100, 900, 900, 900, 900},
                         std::vector<std::int64_t>(10, 800)));
    // Too few calls to speak of a median.
    BOOST_TEST(!isSlower(std::vector<std::int64_t>(9, 100), std::vector<std::int64_t>(9, 900)));
    BOOST_TEST(!compare(withCalls("send", ten), withCalls("receive", {900})).isWorse());
}

BOOST_AUTO_TEST_CASE(beingSlowerIsNotWorse) {
    const BaselineComparison result =
        compare(withCalls("send", std::vector<std::int64_t>(10, 100)),
                withCalls("send", std::vector<std::int64_t>(10, 1000)));
    BOOST_REQUIRE_EQUAL(result.slower.size(), 1U);
    BOOST_TEST(result.slower[0].name == "send");
    BOOST_TEST(result.slower[0].earlierP50Us == 100, boost::test_tools::tolerance(0.02));
    BOOST_TEST(result.slower[0].p50Us == 1000, boost::test_tools::tolerance(0.02));
    BOOST_TEST(!result.isWorse());
}

BOOST_AUTO_TEST_CASE(theLinesSayWhatChanged) {
    BaselineComparison comparison;
    comparison.file = "old\x1b.json";
    comparison.date = "2026-11-20T12:00:00Z";
    comparison.newlyFailing = {{"lib", "a", {"x == y", "u == v"}}};
    comparison.newlyPassing = {{"lib", "b", {"crash"}}};
    comparison.missing = {{"lib", "c", {}}};
    comparison.slower = {{"lib", "send", 100, 1000}};
    const Texts expected = {
        "compared with old\\x1b.json of 2026-11-20T12:00:00Z:",
        "  newly failing  a: x == y; u == v",
        "  newly passing  b: crash",
        "  missing        c",
        "  slower         send: median 1000 us, formerly 100 us",
        "1 newly failing, 0 still failing, 1 newly passing, 1 missing, 1 slower"};
    BOOST_TEST(comparisonLines(comparison) == expected, boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(whatIsNoReportOfAWholeRunIsRefused) {
    checkRefused("", "no JSON report");
    checkRefused("[1]", "no JSON report");
    checkRefused(R"({"schema": 2})", "no JSON report");
    checkRefused(R"({"schema": 1})", "its schema is 1, not 2");
    checkRefused(R"({"schema": 2, "verdict": "pass", "date": "", "libraries": [{"name": 3}]})",
                 "no JSON report");
    checkRefused(toJson(reportOf({ended("a", Verdict::notRun)})).dump(),
                 "its verdict is \"not run\"");
}

BOOST_AUTO_TEST_CASE(aFileThatCannotBeReadIsNamed) {
    for (const auto& unreadable : {folder / "none.json", folder.path()}) {
        BOOST_CHECK_EXCEPTION(
            Baseline::read(unreadable), CommandFailure, [&](const CommandFailure& failure) {
                return failure.status() == ExitStatus::couldNotRun &&
                       std::string(failure.what()).starts_with(unreadable.string() + ": ");
            });
    }
}

BOOST_AUTO_TEST_SUITE_END()
