// What `kavri conformance` offers around the plain run: proof, repeats, reports,
// known failures, explanations.
#define BOOST_TEST_MODULE conformanceKit

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <filesystem>

#include "support/conformance_reports.h"

using kavri::process::ChildProcess;
using namespace kavri::tests;
namespace fs = std::filesystem;

namespace {

const std::string standInFolder = KAVRI_STAND_IN_DIR;

const Arguments sendPass = {"--case", "initiatorSendPass"};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(conformanceKit, ConformanceReports)

BOOST_AUTO_TEST_CASE(casesAndFaultsAreListedAndExplained) {
    const ToolResult cases = run({"--list"});
    BOOST_TEST(cases.exit.code == 0);
    BOOST_TEST(contains(cases.output, "initiatorEvent/initiatorRepeatEventCallback"));
    BOOST_TEST(run({"--list", "--case", "*Event*"}).output.starts_with("initiatorEvent/"));
    BOOST_TEST(contains(run({"--list-faults"}).output, "receive-payload-altered"));
    const ToolResult echo = run({"--explain", "initiatorRepeatEcho"});
    BOOST_TEST(contains(echo.output, "What it proves"));
    const ToolResult fault = run({"--explain", "receive-payload-altered"});
    BOOST_TEST(contains(fault.output, "initiatorSend/initiatorRepeatEcho: payload == rpayload"));
    const ToolResult unknown = run({"--explain", "initiatorEcho"});
    BOOST_TEST(unknown.exit.code == 64);
    BOOST_TEST(contains(unknown.error, "initiatorEcho"));
}

BOOST_AUTO_TEST_CASE(optionsThatContradictEachOtherAreUsageErrors) {
    const std::vector<Arguments> wrong = {
        {"--prove", "--case", "initiatorSendPass"},
        {"--prove", "--repeat", "2"},
        {"--prove", "--fault", "send-lost"},
        {"--until-fail"},
        {"--shuffle", "7"},
        {"--fail-on-leaks"},
        {"--repeat", "5", "--jobs", "2", "--fail-on-leaks"},
        {"--repeat", "0"},
        {"--jobs", "2", "--socket", "/nowhere"},
        {"--jobs", "2", "--own-broker"},
        {"--own-broker", "--socket", "/nowhere"},
        {"--own-broker", "--prove"},
        {"--service-record", "/nowhere"},
        {"--fault", "no-such-fault"},
        {"--jobs", "2"},
        {"--jobs", "1", "--repeat", "2", "--socket", "/nowhere"},
        {"--prove", "--until-fail"},
        {"--prove", "--baseline", "/nowhere"},
        {"--prove", "--library", standInFolder, "--library", standInFolder},
        {"--list", "--json", "/nowhere"},
        {"--list", "--list-faults"},
        {"--list-faults", "--case", "*"},
        {"--explain", "initiatorRepeatEcho", "--timeout", "3"},
        {"--list", "--", "--log_level=all"},
        {"--json", "/nowhere/r", "--junit", "/nowhere/./r"},
        {"--json", "/nowhere/r", "--baseline", "/nowhere/r"},
        {"--fault", ""},
        {"--explain", ""},
        {"--expect", ""},
        {"--level", "most"},
        {"--prove", "--level", "must"},
        {"--repeat", "2", "--write-expect", "/nowhere"},
        {"--repeat", "2", "--baseline", "/nowhere"},
        {"--call-timeout", "0"},
        {"--time-scale", "much"},
    };
    for (const Arguments& arguments : wrong) {
        const ToolResult result = run(arguments);
        BOOST_TEST_CONTEXT(arguments.front() << ": " << result.error) {
            BOOST_TEST(result.exit.code == 64);
            BOOST_TEST(result.output == "");
            BOOST_TEST(std::ranges::count(result.error, '\n') == 1);
        }
    }
}

BOOST_AUTO_TEST_CASE(whatWasProbablyMeantIsSuggested) {
    const std::vector<std::pair<Arguments, std::string>> mistyped = {
        {{"--jsn", "r.json"}, "did you mean '--json'?"},
        {{"--jnuit=r.xml"}, "did you mean '--junit'?"},
        {{"--fault", "send-lots"}, "did you mean 'send-lost'?"},
        {{"--explain", "initiatorRepeatEco"}, "did you mean 'initiatorRepeatEcho'?"},
        {{"--explain", "send-lots"}, "did you mean 'send-lost'?"},
        {{"--case", "initiatorSendpass"}, "did you mean 'initiatorSendPass'?"},
        {{"--list", "--case", "initiatorSendpass"}, "did you mean 'initiatorSendPass'?"}};
    for (const auto& [arguments, suggestion] : mistyped) {
        const ToolResult result = run(arguments);
        BOOST_TEST(result.exit.code == 64);
        BOOST_TEST(contains(result.error, suggestion), result.error);
    }
    for (const Arguments& arguments : std::vector<Arguments>{
             {"--verbose"}, {"extra"}, {"--fault", "nothing"}, {"--explain", "everything"}}) {
        const ToolResult result = run(arguments);
        BOOST_TEST(result.exit.code == 64);
        BOOST_TEST(!contains(result.error, "did you mean"), result.error);
    }
}

BOOST_AUTO_TEST_CASE(reportsHoldTheRecordOfEachCase) {
    const ToolResult result = run(reported(sendPass));
    BOOST_TEST(result.exit.code == 0);
    const nlohmann::json report = json("r.json");
    BOOST_TEST(report["verdict"] == "pass");
    const nlohmann::json& only = report["libraries"][0]["cases"][0];
    BOOST_TEST(only["name"] == "initiatorSend/initiatorSendPass");
    BOOST_TEST(only["checks"].size() == 7U);
    // Three up, two sent, one received, three down.
    BOOST_TEST(only["calls"].size() == 9U);
    for (const nlohmann::json& call : only["calls"]) {
        BOOST_TEST(call["endNs"].get<std::int64_t>() >= call["beginNs"].get<std::int64_t>());
    }
    BOOST_TEST(contains(junit(), "initiatorSendPass"));
    BOOST_TEST(contains(page(), "initiatorSendPass"));
    checkValid();
}

BOOST_AUTO_TEST_CASE(aPlaceThatCannotBeWrittenIsToldBeforeAnyCase) {
    for (const Arguments& place : std::vector<Arguments>{{"--json", "/proc/r.json"},
                                                         {"--junit", at("no/such/r.xml")},
                                                         {"--html", "/proc/page"}}) {
        const ToolResult result = run(with(sendPass, place));
        BOOST_TEST(result.exit.code == 3);
        BOOST_TEST(result.output == "");
        BOOST_TEST(contains(result.error, place[1]), result.error);
    }
}

BOOST_AUTO_TEST_CASE(aKnownFailureDoesNotFailTheRun) {
    const Arguments broken = {"--case", "initiatorRepeatEcho", "--fault",
                              "receive-payload-altered"};
    BOOST_TEST(run(broken).exit.code == 1);
    write("known", "initiatorRepeatEcho: payload == rpayload  # the service adds a mark\n");
    const ToolResult known = run(with(broken, {"--expect", at("known")}));
    BOOST_TEST(known.exit.code == 0);
    BOOST_TEST(contains(known.output, "initiatorSend/initiatorRepeatEcho  known  "));
    BOOST_TEST(contains(known.output, "    fail, as expected: the service adds a mark\n"));
    BOOST_TEST(contains(known.output, "1 case, 0 passed, 1 known to fail; "));
    // Whole runs are judged alike.
    BOOST_TEST(run(with(broken, {"--expect", at("known"), "--repeat", "2"})).exit.code == 0);
    const ToolResult mended = run({"--case", "initiatorRepeatEcho", "--expect", at("known")});
    BOOST_TEST(mended.exit.code == 1);
    BOOST_TEST(contains(mended.error, "known:1: unexpected pass"));
    write("typo", "initiatorRepeatEco  # no such case\n");
    const ToolResult typo = run({"--expect", at("typo")});
    BOOST_TEST(typo.exit.code == 64);
    BOOST_TEST(contains(typo.error, "initiatorRepeatEcho"), typo.error);
}

BOOST_AUTO_TEST_CASE(theFailuresOfARunAreThoseThatTheNextExpects) {
    const Arguments broken = {"--case",  "initiatorRepeatEcho",    "--case", "*FailReceive*",
                              "--fault", "receive-payload-altered"};
    BOOST_TEST(run(with(broken, {"--write-expect", at("known")})).exit.code == 1);
    BOOST_TEST(contains(textOf(at("known")),
                        "initiatorSend/initiatorRepeatEcho: payload == "
                        "rpayload  # not explained yet; fail on 20"));
    BOOST_TEST(!contains(textOf(at("known")), "initiatorFailReceive"));
    const ToolResult known = run(with(broken, {"--expect", at("known")}));
    BOOST_TEST(known.exit.code == 0, known.error);
    BOOST_TEST(contains(known.output, "2 cases, 1 passed, 1 known to fail; "));
    const ToolResult nowhere = run(with(broken, {"--write-expect", at("no/such/known")}));
    BOOST_TEST(nowhere.exit.code == 3);
    BOOST_TEST(nowhere.output == "");
    BOOST_TEST(contains(nowhere.error, at("no/such/known")));
}

BOOST_AUTO_TEST_CASE(withABaselineOnlyWhatIsNewCounts) {
    const Arguments echo = {"--case", "initiatorRepeatEcho"};
    const Arguments broken = with(echo, {"--fault", "receive-payload-altered"});
    BOOST_TEST(run(with(echo, {"--json", at("good.json")})).exit.code == 0);
    const ToolResult worse =
        run(with(broken, {"--baseline", at("good.json"), "--json", at("bad.json")}));
    BOOST_TEST(worse.exit.code == 1);
    BOOST_TEST(contains(worse.output,
                        "  newly failing  initiatorSend/initiatorRepeatEcho: payload == rpayload\n"
                        "1 newly failing, 0 still failing, 0 newly passing, 0 missing, "),
               worse.output);
    BOOST_TEST(json("bad.json")["baseline"]["isWorse"] == true);
    const ToolResult same =
        run(with(broken, {"--baseline", at("bad.json"), "--json", at("same.json")}));
    BOOST_TEST(same.exit.code == 0);
    BOOST_TEST(contains(same.output, "0 newly failing, 1 still failing, "));
    BOOST_TEST(json("same.json")["verdict"] == "fail");  // it is no better either
    const ToolResult mended = run(with(echo, {"--baseline", at("bad.json")}));
    BOOST_TEST(mended.exit.code == 0);
    BOOST_TEST(contains(mended.output, "1 newly passing, 0 missing, "));
    // A crash that the baseline does not have counts as 1 as well.
    const ToolResult crash =
        run(with(echo, {"--baseline", at("bad.json"), "--fault", "send-crashes"}));
    BOOST_TEST(crash.exit.code == 1);
    write("none.json", "{}");
    const ToolResult wrong = run(with(echo, {"--baseline", at("none.json")}));
    BOOST_TEST(wrong.exit.code == 64);
    BOOST_TEST(wrong.output == "");
}

BOOST_AUTO_TEST_CASE(aLevelLeavesOutCasesAndChecks) {
    BOOST_TEST(run({"--list", "--level", "must"}).output.find("NonBlocking") == std::string::npos);
    BOOST_TEST(contains(run({"--list"}).output, "initiatorRepeatEchoNonBlocking, should\n"));
    BOOST_TEST(contains(run({"--explain", "initiatorSendPass"}).output,
                        "  may     KAVRI_CORE_STATUS_NO_ERROR == kavri_core_logging_init("));
    const Arguments broken = with(sendPass, {"--fault", "logging-init-fails"});
    BOOST_TEST(run(broken).exit.code == 1);
    const ToolResult must = run(with(broken, {"--level", "must", "--json", at("r.json")}));
    BOOST_TEST(must.exit.code == 0, must.output);
    BOOST_TEST(contains(must.output, "    not required, since it is a \"may\": "));
    const nlohmann::json report = json("r.json");
    BOOST_TEST(report["libraries"][0]["cases"][0]["level"] == "must");
    BOOST_TEST(report["requirements"].size() == 8U);
    const ToolResult none = run({"--case", "*NonBlocking", "--level", "must"});
    BOOST_TEST(none.exit.code == 64);
    BOOST_TEST(none.output == "");
}

BOOST_AUTO_TEST_CASE(theCommandShownRunsTheFailedCaseAgain) {
    fs::create_directory_symlink(standInFolder, at("it's a library"));
    const ToolResult failed =
        run({"--library", at("it's a library"), "--case", "*SendPass", "--case", "*RepeatEcho",
             "--fault", "receive-payload-altered", "--call-timeout", "5", "--time-scale", "2", "--",
             "--log_level=error", "--log_sink=" + at("a log")});
    BOOST_TEST(failed.exit.code == 1);
    const std::string before = "  initiatorSend/initiatorRepeatEcho, fail\n    ";
    const size_t begin = failed.output.find(before);
    BOOST_REQUIRE(begin != std::string::npos);
    const std::string command = failed.output.substr(
        begin + before.size(),
        failed.output.find('\n', begin + before.size()) - begin - before.size());
    fs::remove(at("a log"));
    ChildProcess shell({.program = "/bin/bash",
                        .arguments = {"-c", command},
                        .environment = {{"TMPDIR", temporary().string()}}});
    const ToolResult again = finish(shell);
    BOOST_TEST(again.exit.code == 1);
    BOOST_TEST(contains(again.output, "1 case, 0 passed; 44 checks, 34 passed, 10 failed; "));
    BOOST_TEST(contains(textOf(at("a log")), "payload == rpayload"));
}

BOOST_AUTO_TEST_CASE(repeatsTellHowManyPassedAndWhatGrew) {
    const ToolResult good =
        run(reported(with(sendPass, {"--repeat", "5", "--jobs", "2", "--shuffle", "3"})));
    BOOST_TEST(good.exit.code == 0);
    checkValid();
    BOOST_TEST(contains(good.output, "5 runs, 5 passed"));
    const nlohmann::json repeats = json("r.json")["libraries"][0]["repeats"];
    BOOST_TEST(repeats["passed"] == 5);
    BOOST_TEST(repeats["growth"].size() == 7U);
    // Two requests of each run.
    BOOST_TEST(repeats["latencies"]["kavri_core_ipc_initiator_command_send"]["count"] == 10);
    const ToolResult bad = run(
        with(sendPass, {"--repeat", "5", "--jobs", "1", "--until-fail", "--fault", "init-fails"}));
    BOOST_TEST(bad.exit.code == 1);
    BOOST_TEST(contains(bad.output, "1 runs, 0 passed"));
}

// With a sanitizer the memory of every library grows.
#ifndef KAVRI_SANITIZED
BOOST_AUTO_TEST_CASE(ofWhatALibraryHoldsTheGrowthIsFound) {
    const Arguments leaking = {"--repeat", "5", "--fault", "deinit-leaks-descriptor"};
    const ToolResult remarked = run(with(sendPass, with(leaking, {"--json", at("r.json")})));
    BOOST_TEST(remarked.exit.code == 0);
    BOOST_TEST(contains(remarked.output, "remark: module, descriptors grows by 1.0 with each run"),
               remarked.output);
    const nlohmann::json report = json("r.json");
    for (const nlohmann::json& growth : report["libraries"][0]["repeats"]["growth"]) {
        BOOST_TEST_CONTEXT(growth.dump()) {
            BOOST_TEST(growth["grows"] == (growth["what"] == "module, descriptors"));
            BOOST_TEST(growth["slope"].is_number());
        }
    }
    const ToolResult failed = run(with(sendPass, with(leaking, {"--fail-on-leaks"})));
    BOOST_TEST(failed.exit.code == 1);
    BOOST_TEST(contains(failed.output, "5 runs, 5 passed"));
    const ToolResult good = run(with(sendPass, {"--repeat", "5", "--fail-on-leaks"}));
    BOOST_TEST(good.exit.code == 0, good.output);
}

BOOST_AUTO_TEST_CASE(growthIsComparedBetweenLibraries) {
    const ToolResult result =
        run(reported(with(sendPass, {"--repeat", "5", "--fail-on-leaks", "--library",
                                     KAVRI_SOUND_LIBRARY_DIR, "--name", "sound", "--library",
                                     KAVRI_LEAKING_LIBRARY_DIR, "--name", "leaking"})));
    BOOST_TEST(result.exit.code == 1);
    checkValid();
    BOOST_TEST(contains(result.output, "fail: module, descriptors grows by 1.0 with each run"),
               result.output);
    const nlohmann::json libraries = json("r.json")["libraries"];
    BOOST_TEST(libraries[0]["verdict"] == "pass");
    BOOST_TEST(libraries[1]["verdict"] == "fail");
    BOOST_TEST(libraries[1]["repeats"]["passed"] == 5);
    BOOST_TEST(contains(textOf(at("r.xml")), "leaking.growth"));
}
#endif

BOOST_AUTO_TEST_CASE(runsGoOnInAnotherProcessWhereOneEnds) {
    const ToolResult result = run(with(sendPass, {"--repeat", "3", "--fault", "send-crashes"}));
    BOOST_TEST(result.exit.code == 2);
    BOOST_TEST(contains(result.output, "3 runs, 0 passed"), result.output);
}

BOOST_AUTO_TEST_CASE(aWarningIsNoFailureUnlessItIsToBeOne) {
    const Arguments broken = with(sendPass, {"--fault", "initiator-deinit-fails"});
    const ToolResult warned = run(with(broken, {"--json", at("r.json"), "--junit", at("r.xml")}));
    BOOST_TEST(warned.exit.code == 0);
    BOOST_TEST(contains(warned.output, "1 passed, 1 with warnings"), warned.output);
    BOOST_TEST(contains(warned.output,
                        "warning: kavri_core_ipc_deinit returned 3 (OUT_OF_RESOURCES); ipc.h: "
                        "\"NO_ERROR; INVALID_ARGUMENT (initiator null).\""),
               warned.output);
    const nlohmann::json only = json("r.json")["libraries"][0]["cases"][0];
    BOOST_TEST(only["verdict"] == "pass");
    BOOST_TEST(only["warnings"][0]["rule"] == "listed-status");
    BOOST_TEST(contains(textOf(at("r.xml")), "warning: kavri_core_ipc_deinit returned 3"));
    const ToolResult strict = run(with(broken, {"--strict", "--json", at("r.json")}));
    BOOST_TEST(strict.exit.code == 1);
    BOOST_TEST(json("r.json")["verdict"] == "fail");
    BOOST_TEST(run(with(sendPass, {"--strict"})).exit.code == 0);
}

BOOST_AUTO_TEST_CASE(severalLibrariesAreRunOneAfterTheOther) {
    const std::string ours = fs::path(KAVRI_LIB_DIR);
    const ToolResult result =
        run(reported(with(sendPass, {"--library", ours, "--library", standInFolder})));
    // The other one answers by itself.
    BOOST_TEST(result.exit.code == 1);
    BOOST_TEST(contains(result.output, "requests never reached the service"));
    checkValid();
    const nlohmann::json report = json("r.json");
    BOOST_REQUIRE(report["libraries"].size() == 2U);
    BOOST_TEST(report["libraries"][0]["name"] == ours);
    BOOST_TEST(report["libraries"][1]["name"] == standInFolder);
    BOOST_TEST(report["libraries"][0]["verdict"] == "pass");
    BOOST_TEST(report["libraries"][1]["verdict"] == "fail");
    // Each has its own time.
    double together = 0;
    for (const nlohmann::json& library : report["libraries"]) {
        together += library["seconds"].get<double>();
    }
    BOOST_TEST(together <= report["seconds"].get<double>());
}

#ifndef KAVRI_SANITIZED  // each of some hundred runs would take many times as long
BOOST_AUTO_TEST_CASE(everyFaultIsNoticedAsTheCatalogueSays) {
    ChildProcess tool(spawn(reported({"--prove", "--time-scale", "3"})));
    const ToolResult result = finish(tool, std::chrono::seconds(240));
    BOOST_TEST(result.exit.code == 0, result.output);
    BOOST_TEST(contains(result.output, "0 not as expected"));
    checkValid();
    // A page is mailed, attached to tickets, kept for each build.
    BOOST_TEST(page().size() < 1'500'000U);
    const nlohmann::json report = json("r.json");
    BOOST_TEST(report["seconds"].get<double>() >= report["matrix"]["seconds"].get<double>());
    for (const nlohmann::json& check : report["matrix"]["checks"]) {
        BOOST_TEST(!check["faults"].empty(), check["caseName"] << ": " << check["check"]);
    }
}
#endif

BOOST_AUTO_TEST_SUITE_END()
