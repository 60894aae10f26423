// The report as one value: its JSON form, member by member, and what a run came to.
#define BOOST_TEST_MODULE report

#include "conformance/report/report.h"

#include <boost/test/unit_test.hpp>
#include <set>

using namespace kavri::conformance;

namespace {

using Json = nlohmann::json;
using Names = std::set<std::string>;

void checkMembers(const Json& object, const Names& expected) {
    BOOST_TEST_REQUIRE(object.is_object(), object.dump());
    Names found;
    for (const auto& [name, value] : object.items()) {
        found.insert(name);
    }
    BOOST_TEST(found == expected, boost::test_tools::per_element());
}

CaseReport ended(Verdict verdict) {
    CaseReport report;
    report.name = "send/echo";
    report.level = "must";
    report.verdict = verdict;
    return report;
}

CallReport callOf(const std::string& function, std::int64_t beginNs,
                  std::optional<std::int64_t> endNs) {
    CallReport call;
    call.function = function;
    call.beginNs = beginNs;
    call.endNs = endNs;
    return call;
}

// A report in which nothing that can be there is missing.
Report fullReport() {
    CaseReport full = ended(Verdict::timeout);
    full.beginNs = 100;
    full.endNs = 900;
    full.checks = {{.text = "a == b",
                    .place = "t.cpp(9)",
                    .passed = false,
                    .left = "1",
                    .right = "2",
                    .message = "error: check a == b has failed [1 != 2]",
                    .atNs = 200,
                    .thread = 7}};
    full.calls = {callOf("send", 300, 400), callOf("response", 500, std::nullopt)};
    full.calls[0].number = 3;
    full.calls[0].thread = 8;
    full.calls[0].arguments = {{"uuid", "0"}};
    full.calls[0].result = {{"status", 0}};
    full.calls[1].kind = CallReport::Kind::delivery;
    full.faults = {{"send-lost", 350, "lost it"}};
    full.missing = {"one thing"};
    full.remarks = {"another thing"};
    full.hang = HangReport{"receive", "{}", 10.5, "c == d", "#0 poll"};
    full.crash = "ended by signal 11";
    full.crashStack = "#0 free";
    full.warnings = {{"one-rule", "it did so", "ipc.h", "A sentence.", 2}};
    full.output = "a line\n";
    full.known = "ticket 12";
    full.repeat = "kavri conformance --case echo";
    Report report;
    report.command = "kavri conformance";
    report.date = "2026-11-20T12:00:00Z";
    report.tool = "kavri 1.0.0";
    report.seconds = 2.5;
    report.libraries = {{.name = "/opt/lib",
                         .core = "/opt/lib/core.so",
                         .broker = "its own broker",
                         .seconds = 1.5,
                         .cases = {full},
                         .reason = "",
                         .repeats = RepeatReport{3, 3, {{"module, threads", 1, 2, 4}}}}};
    MatrixReport& matrix = report.matrix.emplace();
    matrix.faults = {{.name = "send-lost",
                      .description = "loses a request",
                      .clause = "must arrive",
                      .unnoticedBecause = "",
                      .fired = true,
                      .seconds = 0.5,
                      .cases = {full},
                      .wrong = {"it did not fire"}}};
    matrix.checks = {{"send/echo", "a == b", {"send-lost"}}};
    matrix.seconds = 30;
    report.complaints = {"known.txt:1: matched nothing"};
    BaselineComparison& comparison = report.baseline.emplace();
    comparison.file = "earlier.json";
    comparison.date = "2026-11-19T12:00:00Z";
    comparison.newlyFailing = {{"/opt/lib", "send/echo", {"a == b"}}};
    comparison.slower = {{"/opt/lib", "send", 1, 200}};
    return report;
}

}  // namespace

BOOST_AUTO_TEST_SUITE(json)

BOOST_AUTO_TEST_CASE(eachObjectHasItsDocumentedMembers) {
    const Json report = toJson(fullReport());
    checkMembers(report, {"schema", "command", "date", "tool", "verdict", "reason", "seconds",
                          "libraries", "matrix", "requirements", "complaints", "baseline"});
    const Json& library = report["libraries"][0];
    checkMembers(library, {"name", "core", "broker", "seconds", "verdict", "reason", "confirmed",
                           "cases", "latencies", "repeats"});
    checkMembers(library["latencies"], {"send"});
    checkMembers(library["latencies"]["send"], {"count", "p50Us", "p90Us", "p99Us", "maxUs"});
    const Json& first = library["cases"][0];
    checkMembers(first, {"name", "level", "verdict", "beginNs", "endNs", "checks", "calls",
                         "faults", "log", "missing", "remarks", "warnings", "hang", "crash",
                         "crashStack", "output", "known", "repeat"});
    checkMembers(first["warnings"][0], {"rule", "text", "header", "sentence", "times"});
    checkMembers(first["checks"][0],
                 {"text", "place", "passed", "left", "right", "message", "atNs", "thread"});
    for (const Json& call : first["calls"]) {
        checkMembers(call, {"kind", "number", "function", "thread", "beginNs", "endNs", "arguments",
                            "result"});
    }
    checkMembers(first["faults"][0], {"name", "atNs", "did"});
    checkMembers(first["hang"], {"call", "arguments", "seconds", "lastPassed", "stacks"});
    const Json& matrix = report["matrix"];
    checkMembers(matrix, {"faults", "checks", "seconds"});
    checkMembers(matrix["faults"][0], {"name", "description", "clause", "unnoticedBecause", "fired",
                                       "seconds", "cases", "wrong"});
    checkMembers(matrix["checks"][0], {"caseName", "check", "faults"});
    checkMembers(report["baseline"], {"file", "date", "isWorse", "newlyFailing", "stillFailing",
                                      "newlyPassing", "missing", "slower"});
    checkMembers(report["baseline"]["newlyFailing"][0], {"library", "name", "ways"});
    checkMembers(report["baseline"]["slower"][0], {"library", "name", "earlierP50Us", "p50Us"});
    checkMembers(report["libraries"][0]["repeats"],
                 {"runs", "passed", "growth", "latencies", "failsOnGrowth"});
    checkMembers(report["libraries"][0]["repeats"]["growth"][0],
                 {"what", "first", "last", "most", "slope", "grows"});
}

BOOST_AUTO_TEST_CASE(theReportAndItsLibrariesHoldWhatWasKnown) {
    const Json report = toJson(fullReport());
    BOOST_TEST(report["schema"] == 2);
    BOOST_TEST(report["command"] == "kavri conformance");
    BOOST_TEST(report["date"] == "2026-11-20T12:00:00Z");
    BOOST_TEST(report["tool"] == "kavri 1.0.0");
    BOOST_TEST(report["verdict"] == "fail");  // the known case apart, but not the matrix
    BOOST_TEST(report["seconds"] == 2.5);
    BOOST_TEST_REQUIRE(report["libraries"].size() == 1U);
    const Json& library = report["libraries"][0];
    BOOST_TEST(library["name"] == "/opt/lib");
    BOOST_TEST(library["core"] == "/opt/lib/core.so");
    BOOST_TEST(library["broker"] == "its own broker");
    BOOST_TEST(library["confirmed"] == true);
    BOOST_TEST(library["seconds"] == 1.5);
    BOOST_TEST(library["verdict"] == "pass");
    BOOST_TEST(library["cases"].size() == 1U);
}

BOOST_AUTO_TEST_CASE(aCaseHoldsItsWholeRecord) {
    const Json whole = toJson(fullReport())["libraries"][0]["cases"][0];
    const Json expected = {
        {"name", "send/echo"},
        {"level", "must"},
        {"verdict", "timeout"},
        {"beginNs", 100},
        {"endNs", 900},
        {"checks", Json::array({{{"text", "a == b"},
                                 {"place", "t.cpp(9)"},
                                 {"passed", false},
                                 {"left", "1"},
                                 {"right", "2"},
                                 {"message", "error: check a == b has failed [1 != 2]"},
                                 {"atNs", 200},
                                 {"thread", 7}}})},
        {"calls", Json::array({{{"kind", "call"},
                                {"number", 3},
                                {"function", "send"},
                                {"thread", 8},
                                {"beginNs", 300},
                                {"endNs", 400},
                                {"arguments", {{"uuid", "0"}}},
                                {"result", {{"status", 0}}}},
                               {{"kind", "delivery"},
                                {"number", 0},
                                {"function", "response"},
                                {"thread", 0},
                                {"beginNs", 500},
                                {"endNs", nullptr},
                                {"arguments", Json::object()},
                                {"result", Json::object()}}})},
        {"faults", Json::array({{{"name", "send-lost"}, {"atNs", 350}, {"did", "lost it"}}})},
        {"log", Json::array({"t.cpp(9): error: check a == b has failed [1 != 2]"})},
        {"missing", Json::array({"one thing"})},
        {"remarks", Json::array({"another thing"})},
        {"warnings", Json::array({{{"rule", "one-rule"},
                                   {"text", "it did so"},
                                   {"header", "ipc.h"},
                                   {"sentence", "A sentence."},
                                   {"times", 2}}})},
        {"hang",
         {{"call", "receive"},
          {"arguments", "{}"},
          {"seconds", 10.5},
          {"lastPassed", "c == d"},
          {"stacks", "#0 poll"}}},
        {"crash", "ended by signal 11"},
        {"crashStack", "#0 free"},
        {"output", "a line\n"},
        {"known", "ticket 12"},
        {"repeat", "kavri conformance --case echo"}};
    BOOST_TEST(whole.dump(1) == expected.dump(1));
}

BOOST_AUTO_TEST_CASE(theMatrixAndTheRepeatsHoldWhatWasKnown) {
    const Json report = toJson(fullReport());
    const Json& fault = report["matrix"]["faults"][0];
    BOOST_TEST(fault["name"] == "send-lost");
    BOOST_TEST(fault["description"] == "loses a request");
    BOOST_TEST(fault["clause"] == "must arrive");
    BOOST_TEST(fault["unnoticedBecause"] == "");
    BOOST_TEST(fault["fired"] == true);
    BOOST_TEST(fault["seconds"] == 0.5);
    BOOST_TEST(fault["cases"].dump() == report["libraries"][0]["cases"].dump());
    BOOST_TEST(fault["wrong"].dump() == R"(["it did not fire"])");
    BOOST_TEST(report["matrix"]["checks"].dump() ==
               R"([{"caseName":"send/echo","check":"a == b","faults":["send-lost"]}])");
    BOOST_TEST(report["matrix"]["seconds"] == 30);
    BOOST_TEST(report["complaints"].dump() == R"(["known.txt:1: matched nothing"])");
    BOOST_TEST(report["baseline"].dump() ==
               R"({"date":"2026-11-19T12:00:00Z","file":"earlier.json","isWorse":true,)"
               R"("missing":[],"newlyFailing":[{"library":"/opt/lib","name":"send/echo",)"
               R"("ways":["a == b"]}],"newlyPassing":[],"slower":[{"earlierP50Us":1.0,)"
               R"("library":"/opt/lib","name":"send","p50Us":200.0}],"stillFailing":[]})");
    BOOST_TEST(report["libraries"][0]["repeats"].dump() ==
               R"({"failsOnGrowth":false,"growth":[{"first":1.0,"grows":false,"last":2.0,)"
               R"("most":4.0,"slope":null,"what":"module, threads"}],"latencies":{},"passed":3,)"
               R"("runs":3})");
}

BOOST_AUTO_TEST_CASE(whatDoesNotApplyIsNullOrEmpty) {
    Report bare;
    bare.libraries.emplace_back().cases.emplace_back();
    const Json report = toJson(bare);
    BOOST_TEST(report["matrix"].is_null());
    BOOST_TEST(report["libraries"][0]["repeats"].is_null());
    BOOST_TEST(report["complaints"].dump() == "[]");
    BOOST_TEST(report["baseline"].is_null());
    BOOST_TEST(report["libraries"][0]["latencies"].dump() == "{}");
    const Json& first = report["libraries"][0]["cases"][0];
    BOOST_TEST(first["hang"].is_null());
    for (const auto* list : {"checks", "calls", "faults", "log", "missing", "remarks"}) {
        BOOST_TEST(first[list].dump() == "[]", list);
    }
    for (const auto* text : {"crash", "output", "known", "repeat"}) {
        BOOST_TEST(first[text] == "", text);
    }
    BOOST_TEST(toJson(Report())["libraries"].dump() == "[]");
}

BOOST_AUTO_TEST_CASE(eachVerdictHasItsText) {
    const std::vector<std::pair<Verdict, std::string>> texts = {
        {Verdict::pass, "pass"},
        {Verdict::fail, "fail"},
        {Verdict::timeout, "timeout"},
        {Verdict::crash, "crash"},
        {Verdict::notRun, "not run"},
        {Verdict::harnessError, "harness error"},
        {Verdict::incomplete, "incomplete"}};
    for (const auto& [verdict, text] : texts) {
        BOOST_TEST(verdictText(verdict) == text);
        Report report;
        report.libraries.emplace_back().cases = {ended(verdict)};
        const Json made = toJson(report);
        BOOST_TEST(made["verdict"] == text);
        BOOST_TEST(made["libraries"][0]["verdict"] == text);
        BOOST_TEST(made["libraries"][0]["cases"][0]["verdict"] == text);
    }
}

BOOST_AUTO_TEST_CASE(aPassThatTheOtherSideDoesNotConfirmSaysSo) {
    Report report;
    report.libraries.resize(2);
    report.libraries[0].cases = {ended(Verdict::pass)};
    report.libraries[1].cases = {ended(Verdict::pass)};
    report.libraries[1].unconfirmed = true;
    Json made = toJson(report);
    BOOST_TEST(made["verdict"] == "pass, not confirmed by the other side");
    BOOST_TEST(made["libraries"][0]["verdict"] == "pass");
    BOOST_TEST(made["libraries"][0]["confirmed"] == true);
    BOOST_TEST(made["libraries"][1]["verdict"] == "pass, not confirmed by the other side");
    BOOST_TEST(made["libraries"][1]["confirmed"] == false);
    report.libraries[1].cases = {ended(Verdict::fail)};
    made = toJson(report);
    BOOST_TEST(made["verdict"] == "fail");
    BOOST_TEST(made["libraries"][1]["verdict"] == "fail");
}

BOOST_AUTO_TEST_CASE(latenciesAreOfAllCallsThatReturned) {
    constexpr std::int64_t us = 1000;
    Report report;
    auto& cases = report.libraries.emplace_back().cases;
    cases = {ended(Verdict::pass), ended(Verdict::fail)};
    for (std::int64_t i = 1; i <= 100; ++i) {
        cases[i <= 40 ? 0 : 1].calls.push_back(callOf("send", i * us, 2 * i * us));
    }
    cases[0].calls.push_back(callOf("receive", 5 * us, 8 * us));
    cases[0].calls.push_back(callOf("receive", 5 * us, std::nullopt));
    cases[1].calls.push_back(callOf("hangs", 5 * us, std::nullopt));
    cases[1].calls.push_back(callOf("response", 5 * us, 6 * us));
    cases[1].calls.back().kind = CallReport::Kind::delivery;
    const Json latencies = toJson(report)["libraries"][0]["latencies"];
    checkMembers(latencies, {"receive", "send"});
    const Json& send = latencies["send"];
    BOOST_TEST(send["count"] == 100);
    const auto onePercent = boost::test_tools::tolerance(0.01);
    BOOST_TEST(send["p50Us"].get<double>() == 50.0, onePercent);
    BOOST_TEST(send["p90Us"].get<double>() == 90.0, onePercent);
    BOOST_TEST(send["p99Us"].get<double>() == 99.0, onePercent);
    BOOST_TEST(send["maxUs"] == 100.0);
    BOOST_TEST(latencies["receive"]["count"] == 1);
    BOOST_TEST(latencies["receive"]["maxUs"] == 3.0);
}

BOOST_AUTO_TEST_CASE(eachLibraryHasItsOwnLatencies) {
    Report report;
    for (const auto* function : {"send", "receive"}) {
        CaseReport one = ended(Verdict::pass);
        one.calls = {callOf(function, 1, 2)};
        report.libraries.emplace_back().cases = {one};
    }
    const Json made = toJson(report);
    checkMembers(made["libraries"][0]["latencies"], {"send"});
    checkMembers(made["libraries"][1]["latencies"], {"receive"});
}

BOOST_AUTO_TEST_CASE(whateverALibraryPutsIntoATextCanBeWritten) {
    const std::string hostile = "\xff\xc3(\x01\"";
    Report report = fullReport();
    CaseReport& first = report.libraries[0].cases[0];
    first.name = first.crash = first.known = first.repeat = hostile;
    first.missing = first.remarks = {hostile};
    first.checks[0].left = first.checks[0].right = first.checks[0].text = hostile;
    first.checks[0].message = hostile;
    first.calls[0].function = hostile;
    first.calls[0].result = {{"uuid", hostile}};
    first.hang->stacks = first.hang->arguments = hostile;
    report.libraries[0].name = report.command = hostile;
    const Json made = toJson(report);
    BOOST_CHECK_THROW(made.dump(), Json::type_error);
    const Json read = Json::parse(made.dump(1, ' ', false, Json::error_handler_t::replace));
    const std::string replaced = "\xef\xbf\xbd\xef\xbf\xbd(\x01\"";
    const Json& one = read["libraries"][0]["cases"][0];
    BOOST_TEST(one["name"] == replaced);
    BOOST_TEST(one["log"][0] == "t.cpp(9): " + replaced);
    BOOST_TEST(one["checks"][0]["left"] == replaced);
    BOOST_TEST(one["calls"][0]["result"]["uuid"] == replaced);
    BOOST_TEST(read["libraries"][0]["latencies"].contains(replaced));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(verdicts)

BOOST_AUTO_TEST_CASE(ofSeveralCasesTheWorstCounts) {
    const std::vector<Verdict> fromBestToWorst = {
        Verdict::pass, Verdict::fail, Verdict::harnessError, Verdict::timeout, Verdict::crash};
    for (size_t i = 0; i < fromBestToWorst.size(); ++i) {
        for (size_t j = 0; j < fromBestToWorst.size(); ++j) {
            const std::vector<CaseReport> cases = {ended(fromBestToWorst[i]),
                                                   ended(fromBestToWorst[j])};
            const Verdict worst = fromBestToWorst[std::max(i, j)];
            BOOST_TEST(verdictText(worstOf(cases)) == verdictText(worst));
        }
    }
}

BOOST_AUTO_TEST_CASE(withoutAVerdictOnEachCaseThereIsNone) {
    BOOST_TEST((worstOf({}) == Verdict::notRun));
    BOOST_TEST((worstOf({ended(Verdict::notRun), ended(Verdict::notRun)}) == Verdict::notRun));
    for (const Verdict other : {Verdict::pass, Verdict::fail, Verdict::crash}) {
        BOOST_TEST((worstOf({ended(other), ended(Verdict::notRun)}) == Verdict::incomplete));
        BOOST_TEST((worstOf({ended(Verdict::notRun), ended(other)}) == Verdict::incomplete));
    }
}

BOOST_AUTO_TEST_CASE(aReasonKeepsALibraryAndARunFromAVerdict) {
    Report report;
    report.reason = "no broker";
    BOOST_TEST((verdictOn(report) == Verdict::notRun));
    LibraryReport& library = report.libraries.emplace_back();
    library.reason = "no such folder";
    BOOST_TEST((library.verdict() == Verdict::notRun));
    BOOST_TEST((verdictOn(report) == Verdict::notRun));
    for (const Verdict other : {Verdict::pass, Verdict::fail, Verdict::crash}) {
        library.cases = {ended(other)};
        BOOST_TEST((library.verdict() == Verdict::incomplete));
        BOOST_TEST((verdictOn(report) == Verdict::incomplete));
    }
    library.reason.clear();
    BOOST_TEST((library.verdict() == Verdict::crash));
    BOOST_TEST((verdictOn(report) == Verdict::incomplete));  // the matrix, say, is to come
    report.reason.clear();
    BOOST_TEST((verdictOn(report) == Verdict::crash));
    BOOST_TEST(toJson(report)["reason"] == "");
}

BOOST_AUTO_TEST_CASE(besideALibraryThatWasNotRunTheOthersAreNoPass) {
    Report report;
    report.libraries.resize(2);
    report.libraries[0].cases = {ended(Verdict::pass)};
    report.libraries[1].reason = "no such folder";
    BOOST_TEST((verdictOn(report) == Verdict::incomplete));
    BOOST_TEST((report.libraries[0].verdict() == Verdict::pass));
    BOOST_TEST(toJson(report)["libraries"][1]["verdict"] == "not run");
    BOOST_TEST(toJson(report)["libraries"][1]["reason"] == "no such folder");
}

BOOST_AUTO_TEST_CASE(knownFailuresDoNotCount) {
    CaseReport known = ended(Verdict::crash);
    known.known = "ticket 12";
    BOOST_TEST((worstOf({known}) == Verdict::pass));
    BOOST_TEST((worstOf({known, ended(Verdict::fail)}) == Verdict::fail));
    Report report;
    report.libraries.emplace_back().cases = {known};
    BOOST_TEST((verdictOn(report) == Verdict::pass));
}

BOOST_AUTO_TEST_CASE(ofSeveralLibrariesTheWorstCounts) {
    Report report;
    BOOST_TEST((verdictOn(report) == Verdict::notRun));
    report.libraries.emplace_back().cases = {ended(Verdict::timeout)};
    report.libraries.emplace_back().cases = {ended(Verdict::pass)};
    BOOST_TEST((verdictOn(report) == Verdict::timeout));
}

BOOST_AUTO_TEST_CASE(aMatrixMustBeProven) {
    Report report;
    MatrixReport& matrix = report.matrix.emplace();
    matrix.faults.resize(2);
    matrix.checks = {{"send/echo", "a == b", {"send-lost"}}};
    BOOST_TEST(matrix.isProven());
    BOOST_TEST((verdictOn(report) == Verdict::pass));

    matrix.faults[1].wrong = {"it did not fire"};
    BOOST_TEST(!matrix.faults[1].asExpected());
    BOOST_TEST(!matrix.isProven());
    BOOST_TEST((verdictOn(report) == Verdict::fail));

    matrix.faults[1].wrong.clear();
    matrix.checks.push_back({"send/echo", "never red", {}});
    BOOST_TEST(!matrix.isProven());
    BOOST_TEST((verdictOn(report) == Verdict::fail));

    report.libraries.emplace_back().cases = {ended(Verdict::crash)};
    BOOST_TEST((verdictOn(report) == Verdict::crash));
}

// The cases with faults are red on purpose.
BOOST_AUTO_TEST_CASE(casesOfTheMatrixAreNoVerdictByThemselves) {
    Report report;
    report.matrix.emplace().faults.emplace_back().cases = {ended(Verdict::crash)};
    BOOST_TEST((verdictOn(report) == Verdict::pass));
}

BOOST_AUTO_TEST_CASE(eachRepeatMustPass) {
    Report report;
    LibraryReport& library = report.libraries.emplace_back();
    library.cases = {ended(Verdict::pass)};
    std::optional<RepeatReport>& repeats = library.repeats;
    repeats = RepeatReport{3, 3, {}};
    BOOST_TEST((verdictOn(report) == Verdict::pass));
    repeats->passed = 2;
    BOOST_TEST((verdictOn(report) == Verdict::fail));
}

BOOST_AUTO_TEST_CASE(anEntryOfTheKnownFailuresThatIsNotTrueFails) {
    Report report;
    report.complaints = {"known.txt:1: unexpected pass"};
    BOOST_TEST((verdictOn(report) == Verdict::fail));
}

BOOST_AUTO_TEST_CASE(theChecksThatFailedAreNamedOnce) {
    CaseReport report;
    for (const auto* text : {"b", "a", "b"}) {
        report.checks.emplace_back().text = text;
    }
    report.checks.emplace_back().passed = true;
    BOOST_TEST(report.failedChecks() == (std::vector<std::string>{"b", "a"}),
               boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(growthIsAFailureWhereThatIsAskedFor) {
    Report report;
    LibraryReport& library = report.libraries.emplace_back();
    library.cases = {ended(Verdict::pass)};
    RepeatReport& repeats = library.repeats.emplace(RepeatReport{5, 5, {}});
    repeats.growth = {{.what = "module, threads", .slope = 1.0, .grows = true}};
    BOOST_TEST((verdictOn(report) == Verdict::pass));
    repeats.failsOnGrowth = true;
    BOOST_TEST((verdictOn(report) == Verdict::fail));
    repeats.growth[0].grows = false;
    BOOST_TEST((verdictOn(report) == Verdict::pass));
}

BOOST_AUTO_TEST_CASE(aCaseCountsItsFailedChecksAndItsSeconds) {
    CaseReport report;
    report.checks.resize(3);
    report.checks[1].passed = true;
    report.beginNs = 9'000'000'000'000'000'000;
    report.endNs = report.beginNs + 1'500'000'000;
    BOOST_TEST(report.checksFailed() == 2U);
    BOOST_TEST(report.seconds() == 1.5);
}

BOOST_AUTO_TEST_SUITE_END()
