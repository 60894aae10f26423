// What is no verdict is never shown as one: a library that could not be run, a run that was
// cut off or killed. Terminal, JSON, JUnit and page say the same, and why.
#define BOOST_TEST_MODULE conformanceVerdict

#include <signal.h>
#include <sys/wait.h>

#include <boost/test/unit_test.hpp>
#include <cerrno>
#include <filesystem>
#include <tuple>

#include "support/conformance_reports.h"

using kavri::process::ChildProcess;
using namespace kavri::tests;
namespace fs = std::filesystem;

namespace {

const std::string ours = KAVRI_LIB_DIR;
const std::string standIn = KAVRI_STAND_IN_DIR;
const std::string lacking = KAVRI_LACKING_DIR;
const Arguments sendPass = {"--case", "initiatorSendPass"};

// In JUnit and page some characters are written as references.
bool saysReason(const std::string& document, std::string reason) {
    reason = reason.substr(0, reason.find_first_of("'\"&<>"));
    return contains(document, reason);
}

class Verdicts : public ConformanceReports {
  public:
    // That all four say that nothing was run, and why.
    void checkNotRun(const ToolResult& result, int status, const std::string& part) const {
        BOOST_TEST(result.exit.code == status, result.error);
        BOOST_TEST(contains(result.error, part), result.error);
        const nlohmann::json report = json();
        BOOST_TEST(report["verdict"] == "not run");
        const std::string reason = report["reason"];
        BOOST_TEST(contains(reason, part), reason);
        BOOST_TEST(contains(result.error, reason), result.error);
        for (const nlohmann::json& library : report["libraries"]) {
            BOOST_TEST(library["verdict"] == "not run");
            BOOST_TEST(library["reason"] == reason);
        }
        BOOST_TEST(!contains(junit(), "errors=\"0\""), junit());
        BOOST_TEST(contains(junit(), "type=\"not run\""), junit());
        BOOST_TEST(saysReason(junit(), reason), junit());
        checkPage("not run", reason);
    }

    void checkPage(const std::string& verdict, const std::string& reason) const {
        BOOST_TEST(contains(page(), "<h1>Conformance report: " + verdict + "</h1>"));
        BOOST_TEST(saysReason(page(), reason));
    }

    ToolResult runReported(const Arguments& arguments, const Environment& environment = {}) const {
        ToolResult result = run(reported(arguments), environment);
        checkValid();
        return result;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(conformanceVerdict, Verdicts)

BOOST_AUTO_TEST_CASE(aLibraryThatCannotBeRunIsNoPass) {
    fs::create_directory(at("empty"));
    const std::vector<std::pair<std::string, std::string>> libraries = {
        {lacking, "lacks kavri_core_ipc_initiator_event_subscribe"},
        {at("empty"), "no libkavri-core-test.so in "},
        {at("nowhere"), "no folder "}};
    for (const auto& [library, reason] : libraries) {
        checkNotRun(runReported({"--library", library}), 3, reason);
    }
}

BOOST_AUTO_TEST_CASE(aLibraryThatFailsWhenLoadedIsNoPass) {
    checkNotRun(runReported({"--library", standIn}, {{"STAND_IN_DEFECT", "crashesWhenLoaded"}}), 3,
                "SIGABRT");
    checkNotRun(runReported({"--library", standIn, "--timeout", "0.3"},
                            {{"STAND_IN_DEFECT", "hangsWhenLoaded"}}),
                2, "the 0.3 s were over");
    checkNotRun(runReported({"--library", standIn, "--call-timeout", "0.3"},
                            {{"STAND_IN_DEFECT", "hangsWhenUnloaded"}}),
                3, "hangs when it is unloaded");
}

BOOST_AUTO_TEST_CASE(withoutABrokerTheReportsAreWrittenAndSaySo) {
    checkNotRun(runReported({"--socket", at("nowhere.sock")}), 3, "no broker at ");
    checkNotRun(
        runReported({"--socket", at("nowhere.sock"), "--library", ours, "--library", standIn}), 3,
        "no broker at ");
}

BOOST_AUTO_TEST_CASE(whatTheCommandLineGetsWrongIsInTheReportsToo) {
    checkNotRun(runReported({"--case", "initiatorSendpass"}), 64, "no case matches");
    write("typo", "initiatorRepeatEco  # no such case\n");
    checkNotRun(runReported({"--expect", at("typo")}), 64, "no case ");
}

BOOST_AUTO_TEST_CASE(aReportOfBeforeIsReplaced) {
    BOOST_TEST(runReported(sendPass).exit.succeeded());
    BOOST_TEST(json()["verdict"] == "pass");
    checkNotRun(runReported({"--library", lacking}), 3, "lacks ");
}

BOOST_AUTO_TEST_CASE(besideALibraryThatCannotBeRunTheOthersAreRun) {
    const ToolResult result =
        runReported(with(sendPass, {"--library", lacking, "--library", ours}));
    BOOST_TEST(result.exit.code == 3);
    BOOST_TEST(contains(result.error, "lacks "), result.error);
    BOOST_TEST(contains(result.output, "1 case, 1 passed"), result.output);
    const nlohmann::json report = json();
    BOOST_TEST(report["verdict"] == "incomplete");
    BOOST_REQUIRE(report["libraries"].size() == 2U);
    BOOST_TEST(report["libraries"][0]["verdict"] == "not run");
    BOOST_TEST(report["libraries"][1]["verdict"] == "pass");
    BOOST_TEST(report["libraries"][1]["reason"] == "");
    const std::string reason = report["libraries"][0]["reason"];
    BOOST_TEST(contains(junit(), "name=\"" + lacking + "\""), junit());
    BOOST_TEST(contains(junit(), "name=\"" + ours + ".initiatorSend\""), junit());
    BOOST_TEST(saysReason(junit(), reason), junit());
    checkPage("incomplete", reason);
}

BOOST_AUTO_TEST_CASE(aRunWhoseTimeIsOverIsIncomplete) {
    const ToolResult result =
        runReported({"--library", ours, "--fault", "receive-hangs", "--timeout", "4"});
    BOOST_TEST(result.exit.code == 2, result.error);
    const nlohmann::json report = json();
    BOOST_TEST(report["verdict"] == "incomplete");
    BOOST_TEST(contains(report["reason"], "the 4 s were over"));
    BOOST_TEST(report["libraries"][0]["cases"].size() == 8U);
    BOOST_TEST(report["libraries"][0]["cases"][7]["verdict"] == "not run");
    BOOST_TEST(contains(junit(), "type=\"not run\""), junit());
    checkPage("incomplete", "the 4 s were over");
}

BOOST_AUTO_TEST_CASE(aRunThatIsKilledLeavesAnIncompleteReport) {
    ChildProcess tool(spawn(reported({})));
    BOOST_REQUIRE(tool.waitForOutput("initiatorRepeatEcho ", longEnough));
    tool.signal(SIGKILL);
    BOOST_REQUIRE(tool.wait(longEnough).has_value());
    const std::string reason = "the run had not ended when this was written";
    checkValid();
    const nlohmann::json report = json();
    BOOST_TEST(report["verdict"] == "incomplete");
    BOOST_TEST(report["reason"] == reason);
    const nlohmann::json& cases = report["libraries"][0]["cases"];
    BOOST_REQUIRE(cases.size() == 8U);
    BOOST_TEST(cases[0]["verdict"] == "pass");
    BOOST_TEST(cases[7]["verdict"] == "not run");
    BOOST_TEST(contains(junit(), "type=\"not run\""), junit());
    BOOST_TEST(contains(junit(), reason), junit());
    checkPage("incomplete", reason);
    // Nobody could tidy up: the kernel ended the programs, the next run removes the folder.
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    BOOST_TEST(!fs::is_empty(temporary()));
    run(sendPass);  // checks that nothing is left
}

BOOST_AUTO_TEST_CASE(aRunThatIsKilledBeforeTheFirstCaseLeavesAReportOfNothing) {
    ChildProcess tool(
        spawn(reported({"--library", standIn}), {{"STAND_IN_DEFECT", "hangsWhenLoaded"}}));
    while (textOf(at("page/index.html")).empty() && !tool.wait(std::chrono::milliseconds(5))) {
    }
    tool.signal(SIGKILL);
    BOOST_REQUIRE(tool.wait(longEnough).has_value());
    checkValid();
    BOOST_TEST(json()["verdict"] == "not run");
    BOOST_TEST(contains(junit(), "type=\"not run\""), junit());
    checkPage("not run", "the run had not ended when this was written");
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

BOOST_AUTO_TEST_CASE(failuresTimeOutsAndCrashesAreVerdicts) {
    const std::vector<std::tuple<std::string, std::string, int>> faults = {
        {"receive-payload-altered", "fail", 1},
        {"receive-hangs", "timeout", 2},
        {"receive-crashes", "crash", 2}};
    for (const auto& [fault, verdict, status] : faults) {
        const ToolResult result = runReported({"--library", ours, "--case", "initiatorRepeatEcho",
                                               "--fault", fault, "--call-timeout", "1"});
        BOOST_TEST(result.exit.code == status, result.error);
        BOOST_TEST(json()["verdict"] == verdict);
        BOOST_TEST(json()["libraries"][0]["verdict"] == verdict);
        checkPage(verdict, "");
    }
}

// It returns while the kit takes the stacks, or the moment after.
BOOST_AUTO_TEST_CASE(aCallThatReturnsJustBehindItsLimitIsShownAsItWas) {
    for (const auto* taken : {"sendTakes=401", "sendTakes=450", "sendTakes=700"}) {
        const ToolResult result = runReported(
            {"--library", standIn, "--case", "initiatorSendPass", "--call-timeout", "0.4"},
            {{"STAND_IN_DEFECT", taken}});
        const nlohmann::json report = json();
        const nlohmann::json& one = report["libraries"][0]["cases"][0];
        if (one["verdict"] != "timeout") {  // the kit looked when it had returned
            BOOST_TEST(one["hang"].is_null());
            continue;
        }
        BOOST_TEST(result.exit.code == 2);
        BOOST_TEST(one["hang"]["call"] == "kavri_core_ipc_initiator_command_send");
        BOOST_TEST(one["hang"]["seconds"].get<double>() >= 0.4);
        BOOST_TEST(one["calls"].back()["endNs"].is_null());
    }
}

BOOST_AUTO_TEST_CASE(aLibraryIsCalledTheSameHoweverItsPathIsTyped) {
    const std::string folder = fs::path(ours).filename();
    for (const std::string& typed :
         {ours, ours + "/", ours + "/../" + folder, fs::relative(ours).string()}) {
        runReported(with(sendPass, {"--library", typed}));
        BOOST_TEST(json()["libraries"][0]["name"] == ours);
        BOOST_TEST(contains(junit(), "classname=\"" + ours + ".initiatorSend\""), junit());
    }
    runReported(with(sendPass, {"--library", ours, "--name", "ours, 1.0"}));
    BOOST_TEST(json()["libraries"][0]["name"] == "ours, 1.0");
    BOOST_TEST(contains(junit(), "classname=\"ours, 1.0.initiatorSend\""), junit());
    BOOST_TEST(run({"--library", ours, "--library", standIn, "--name", "one"}).exit.code == 64);
    BOOST_TEST(
        run({"--library", ours, "--library", standIn, "--name", "a", "--name", "a"}).exit.code ==
        64);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(nothingIsUnbounded, Verdicts)

BOOST_AUTO_TEST_CASE(whatTheLibraryPrintsIsWithItsCase) {
    runReported({"--library", standIn, "--case", "initiatorSendPass", "--case",
                 "initiatorFailReceiveWithCallback"},
                {{"STAND_IN_DEFECT", "prints"}});
    const nlohmann::json report = json();
    const nlohmann::json& cases = report["libraries"][0]["cases"];
    const std::string printed = cases[0]["output"];
    BOOST_TEST(contains(printed, "a line on standard error\n"), printed);
    BOOST_TEST(contains(printed, "a line on standard output\n"), printed);
    BOOST_TEST(contains(printed, "no line break at the end\n"), printed);
    BOOST_TEST(cases[1]["output"] == "");  // it sends nothing
    BOOST_TEST(contains(junit(), "<system-err>a line on standard"), junit());
}

// With as much memory as the tool needs otherwise.
BOOST_AUTO_TEST_CASE(aLibraryThatPrintsForEverFillsNeitherMemoryNorReports) {
    kavri::process::ChildSpawn limited = spawn(
        reported({"--library", standIn, "--case", "initiatorSendPass", "--call-timeout", "1"}),
        {{"STAND_IN_DEFECT", "printsWithoutEnd"}});
    limited.arguments.insert(limited.arguments.begin(),
                             {"-c", "ulimit -v 1000000; exec \"$0\" \"$@\"", limited.program});
#ifdef KAVRI_SANITIZED  // whose shadow memory is larger than that
    limited.arguments[1] = "exec \"$0\" \"$@\"";
#endif
    limited.program = "/bin/bash";
    ChildProcess tool(limited);
    const ToolResult result = finish(tool);
    checkValid();
    BOOST_TEST(result.exit.code == 2, result.error.substr(0, 1000));
    BOOST_TEST(result.error.size() < 80'000U);
    const nlohmann::json report = json();
    const std::string printed = report["libraries"][0]["cases"][0]["output"];
    BOOST_TEST(printed.size() < 66'000U);
    BOOST_TEST(printed.ends_with(" bytes more)\n"), printed.substr(printed.size() - 100));
    BOOST_TEST(textOf(at("r.json")).size() < 200'000U);
    BOOST_TEST(junit().size() < 200'000U);
    BOOST_TEST(page().size() < 400'000U);
}

BOOST_AUTO_TEST_CASE(longPayloadsMakeNoLongReports) {
    const ToolResult result =
        runReported({"--library", standIn}, {{"STAND_IN_DEFECT", "answerBytes=3000000"}});
    BOOST_TEST(result.exit.code == 1, result.error);
    BOOST_TEST(result.output.size() < 100'000U);
    BOOST_TEST(textOf(at("r.json")).size() < 500'000U);
    BOOST_TEST(junit().size() < 200'000U);
    BOOST_TEST(page().size() < 500'000U);
    BOOST_TEST(contains(junit(), " bytes more)"));
}

BOOST_AUTO_TEST_SUITE_END()
