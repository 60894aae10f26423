// How a fault is reported whose effects differ from what the catalogue says, and
// which checks no fault turned red.
#define BOOST_TEST_MODULE killMatrix

#include "conformance/run/kill_matrix.h"

#include <boost/test/unit_test.hpp>
#include <ostream>

using kavri::conformance::CaseReport;
using kavri::conformance::CheckKilled;
using kavri::conformance::checksKilled;
using kavri::conformance::deviationsFrom;
using kavri::conformance::Fault;
using kavri::conformance::FaultReport;
using kavri::conformance::Kill;
using kavri::conformance::Verdict;

namespace kavri::conformance {

static bool operator==(const CheckKilled& a, const CheckKilled& b) {
    return a.caseName == b.caseName && a.check == b.check && a.faults == b.faults;
}

static std::ostream& operator<<(std::ostream& stream, const CheckKilled& killed) {
    stream << killed.caseName << ": " << killed.check << " by";
    for (const std::string& fault : killed.faults) {
        stream << ' ' << fault;
    }
    return stream;
}

}  // namespace kavri::conformance

namespace {

using Lines = std::vector<std::string>;

struct Check {
    std::string text;
    bool passed = true;
};

CaseReport ended(const std::string& name, Verdict verdict, const std::vector<Check>& checks = {}) {
    CaseReport report;
    report.name = name;
    report.verdict = verdict;
    for (const Check& check : checks) {
        auto& added = report.checks.emplace_back();
        added.text = check.text;
        added.passed = check.passed;
    }
    return report;
}

CaseReport failed(const std::string& name, const std::string& check) {
    return ended(name, Verdict::fail, {{"a check before it"}, {check, false}});
}

FaultReport fired(const std::string& name, const std::vector<CaseReport>& cases) {
    FaultReport report;
    report.name = name;
    report.fired = true;
    report.cases = cases;
    return report;
}

Fault killedBy(const std::vector<Kill>& kills) {
    Fault fault;
    fault.name = "request-lost";
    fault.kills = kills;
    return fault;
}

void checkDeviations(const Fault& fault, const FaultReport& report, const Lines& expected) {
    BOOST_TEST(deviationsFrom(fault, report) == expected, boost::test_tools::per_element());
}

void checkKilled(const std::vector<CaseReport>& baseline, const std::vector<FaultReport>& faults,
                 const std::vector<CheckKilled>& expected) {
    BOOST_TEST(checksKilled(baseline, faults) == expected, boost::test_tools::per_element());
}

}  // namespace

BOOST_AUTO_TEST_SUITE(deviations)

BOOST_AUTO_TEST_CASE(aFaultThatTheNamedCheckKillsIsAsTheCatalogueSays) {
    checkDeviations(
        killedBy({{"s/one", "a == b"}}),
        fired("request-lost", {failed("s/one", "a == b"), ended("s/two", Verdict::pass)}), {});
}

BOOST_AUTO_TEST_CASE(aFaultThatNoCaseCanDetectLeavesAllGreen) {
    Fault fault = killedBy({});
    fault.survivesBecause = "No case asks.";
    checkDeviations(fault, fired("request-lost", {ended("s/one", Verdict::pass)}), {});
    checkDeviations(fault, fired("request-lost", {failed("s/one", "a == b")}),
                    {"s/one turned red: fail, a == b"});
}

BOOST_AUTO_TEST_CASE(aFaultMayBeDetectedByAWarningAlone) {
    CaseReport warned = ended("s/one", Verdict::pass);
    warned.warnings = {{"one-rule", "it did so", "ipc.h", "A sentence."}};
    const FaultReport report = fired("request-lost", {warned});
    checkDeviations(killedBy({{"s/one", "warning: one-rule"}}), report, {});
    checkDeviations(killedBy({{"s/one", "warning: other-rule"}}), report,
                    {"s/one did not turn red by warning: other-rule"});
    checkDeviations(killedBy({}), report, {"s/one turned red: pass, warning: one-rule"});
    BOOST_TEST(report.isDetectedByWarnings());
    BOOST_TEST(!fired("request-lost", {warned, failed("s/two", "a == b")}).isDetectedByWarnings());
    BOOST_TEST(!fired("request-lost", {ended("s/one", Verdict::pass)}).isDetectedByWarnings());
}

BOOST_AUTO_TEST_CASE(aFaultThatDidNotFireIsSaid) {
    FaultReport report = fired("request-lost", {ended("s/one", Verdict::pass)});
    report.fired = false;
    checkDeviations(killedBy({}), report, {"it did not fire"});
}

BOOST_AUTO_TEST_CASE(aNamedCheckThatStaysGreenIsSaid) {
    const Fault fault = killedBy({{"s/one", "a == b"}});
    const Lines complaint = {"s/one did not turn red by a == b"};
    checkDeviations(fault,
                    fired("request-lost", {ended("s/one", Verdict::pass, {{"a == b", true}})}),
                    complaint);
    // Neither by another check nor in another way.
    checkDeviations(fault, fired("request-lost", {failed("s/one", "c == d")}), complaint);
    checkDeviations(fault, fired("request-lost", {ended("s/one", Verdict::timeout)}), complaint);
    // Nor did it where it did not run.
    checkDeviations(fault, fired("request-lost", {}), complaint);
}

BOOST_AUTO_TEST_CASE(eachOfACasesKillsMustBeThere) {
    const Fault fault = killedBy({{"s/one", "a == b"}, {"s/one", "c == d"}});
    checkDeviations(fault,
                    fired("request-lost",
                          {ended("s/one", Verdict::fail, {{"a == b", false}, {"c == d", false}})}),
                    {});
    checkDeviations(fault, fired("request-lost", {failed("s/one", "a == b")}),
                    {"s/one did not turn red by c == d"});
}

BOOST_AUTO_TEST_CASE(aCaseThatTurnsRedThoughNotNamedIsSaid) {
    CaseReport unnamed = ended("s/two", Verdict::fail,
                               {{"a == b", false}, {"c == d"}, {"a == b", false}, {"e", false}});
    unnamed.missing = {"2 sends must have been made"};
    checkDeviations(killedBy({{"s/one", "a == b"}}),
                    fired("request-lost",
                          {failed("s/one", "a == b"), unnamed, ended("s/three", Verdict::notRun)}),
                    {"s/two turned red: fail, a == b, e, 2 sends must have been made",
                     "s/three turned red: not run"});
}

BOOST_AUTO_TEST_CASE(aTimeoutOrACrashKills) {
    for (const auto& [how, verdict] :
         {std::pair("timeout", Verdict::timeout), std::pair("crash", Verdict::crash),
          std::pair("not run", Verdict::notRun)}) {
        const Fault fault = killedBy({{"s/one", how}});
        checkDeviations(fault, fired("request-lost", {ended("s/one", verdict)}), {});
        checkDeviations(fault, fired("request-lost", {failed("s/one", "a == b")}),
                        {std::string("s/one did not turn red by ") + how});
    }
}

BOOST_AUTO_TEST_CASE(anIncompleteRecordKills) {
    const Fault fault = killedBy({{"s/one", "record"}});
    CaseReport incomplete = ended("s/one", Verdict::fail, {{"a == b"}});
    incomplete.missing = {"2 sends must have been made"};
    checkDeviations(fault, fired("request-lost", {incomplete}), {});
    checkDeviations(fault, fired("request-lost", {failed("s/one", "a == b")}),
                    {"s/one did not turn red by record"});
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(checks)

BOOST_AUTO_TEST_CASE(aCheckThatNoFaultTurnsRedIsThereWithoutFaults) {
    const CaseReport clean = ended("s/one", Verdict::pass, {{"a == b"}, {"c == d"}, {"a == b"}});
    checkKilled({clean}, {fired("request-lost", {failed("s/one", "c == d")})},
                {{"s/one", "a == b", {}},
                 {"s/one", "c == d", {"request-lost"}},
                 {"s/one", "a check before it", {}}});
}

BOOST_AUTO_TEST_CASE(aCheckThatIsOnlyMadeWhereSomethingIsWrongIsThereToo) {
    checkKilled(
        {ended("s/one", Verdict::pass, {{"a == b"}})},
        {fired("answer-late", {ended("s/one", Verdict::fail, {{"late", false}, {"then"}})})},
        {{"s/one", "a == b", {}}, {"s/one", "late", {"answer-late"}}, {"s/one", "then", {}}});
}

BOOST_AUTO_TEST_CASE(aFaultIsNamedOncePerCheckHoweverOftenItTurnsItRed) {
    const CaseReport red =
        ended("s/one", Verdict::fail, {{"a == b", false}, {"a == b"}, {"a == b", false}});
    checkKilled({ended("s/one", Verdict::pass, {{"a == b"}})},
                {fired("request-lost", {red}), fired("answer-late", {red})},
                {{"s/one", "a == b", {"request-lost", "answer-late"}}});
}

BOOST_AUTO_TEST_CASE(theSameTextInAnotherCaseIsAnotherCheck) {
    checkKilled(
        {ended("s/one", Verdict::pass, {{"a == b"}}), ended("s/two", Verdict::pass, {{"a == b"}})},
        {fired("request-lost", {ended("s/one", Verdict::pass, {{"a == b"}}),
                                ended("s/two", Verdict::fail, {{"a == b", false}})})},
        {{"s/one", "a == b", {}}, {"s/two", "a == b", {"request-lost"}}});
}

BOOST_AUTO_TEST_CASE(withoutCasesThereAreNoChecks) {
    checkKilled({}, {fired("request-lost", {})}, {});
}

BOOST_AUTO_TEST_SUITE_END()
