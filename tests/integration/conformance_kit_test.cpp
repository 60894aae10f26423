// What `kavri conformance` offers around the plain run: proof, repeats, reports,
// known failures, explanations.
#define BOOST_TEST_MODULE conformanceKit

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/child_process.h"
#include "support/temporary_folder.h"

using kavri::cli::ChildProcess;
using kavri::cli::ChildSpawn;
using kavri::cli::ExitState;
using kavri::tests::TemporaryFolder;
namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds longEnough{240};
const fs::path binFolder = KAVRI_BIN_DIR;
const std::string standInFolder = KAVRI_STAND_IN_DIR;

using Arguments = std::vector<std::string>;

struct Result {
    int code = -1;
    std::string output;
    std::string error;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Kit {
  public:
    Kit() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    Kit(const Kit&) = delete;
    Kit& operator=(const Kit&) = delete;
    ~Kit() {
        BOOST_TEST(fs::is_empty(temporary_.path()));
        prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

    ChildSpawn spawn(const Arguments& arguments) const {
        ChildSpawn result = {.program = binFolder / "kavri", .arguments = {"conformance"}};
        result.arguments.insert(result.arguments.end(), arguments.begin(), arguments.end());
        result.environment["TMPDIR"] = temporary_.path().string();
        return result;
    }

    Result run(const Arguments& arguments) const {
        ChildProcess tool(spawn(arguments));
        const std::optional<ExitState> exit = tool.wait(longEnough);
        BOOST_REQUIRE_MESSAGE(exit.has_value(), "the tool does not end: " << tool.error());
        return {exit->code, tool.output(), tool.error()};
    }

    std::string at(const std::string& name) const { return folder_ / name; }
    nlohmann::json json(const std::string& name) const {
        std::ifstream file(at(name));
        return nlohmann::json::parse(file);
    }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(at(name)) << text;
    }

  private:
    TemporaryFolder temporary_;
    TemporaryFolder folder_;
};

std::string textOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

const Arguments sendPass = {"--case", "initiatorSendPass"};

Arguments with(Arguments first, const Arguments& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(conformanceKit, Kit)

BOOST_AUTO_TEST_CASE(casesAndFaultsAreListedAndExplained) {
    const Result cases = run({"--list"});
    BOOST_TEST(cases.code == 0);
    BOOST_TEST(contains(cases.output, "initiatorEvent/initiatorRepeatEventCallback"));
    BOOST_TEST(contains(run({"--list-faults"}).output, "receive-payload-altered"));
    const Result echo = run({"--explain", "initiatorRepeatEcho"});
    BOOST_TEST(contains(echo.output, "What it proves"));
    const Result fault = run({"--explain", "receive-payload-altered"});
    BOOST_TEST(contains(fault.output, "initiatorSend/initiatorRepeatEcho: payload == rpayload"));
    const Result unknown = run({"--explain", "initiatorEcho"});
    BOOST_TEST(unknown.code == 64);
    BOOST_TEST(contains(unknown.error, "initiatorEcho"));
}

BOOST_AUTO_TEST_CASE(optionsThatContradictEachOtherAreUsageErrors) {
    const std::vector<Arguments> wrong = {
        {"--prove", "--case", "initiatorSendPass"},
        {"--prove", "--repeat", "2"},
        {"--prove", "--fault", "send-lost"},
        {"--until-fail"},
        {"--shuffle", "7"},
        {"--repeat", "0"},
        {"--repeat", "2", "--library", standInFolder, "--library", standInFolder},
        {"--jobs", "2", "--socket", "/nowhere"},
        {"--fault", "no-such-fault"},
        {"--call-timeout", "0"},
        {"--time-scale", "much"},
    };
    for (const Arguments& arguments : wrong) {
        const Result result = run(arguments);
        BOOST_TEST_CONTEXT(arguments.front() << ": " << result.error) {
            BOOST_TEST(result.code == 64);
            BOOST_TEST(result.output == "");
            BOOST_TEST(std::ranges::count(result.error, '\n') == 1);
        }
    }
}

BOOST_AUTO_TEST_CASE(reportsHoldTheRecordOfEachCase) {
    const Result result =
        run(with(sendPass, {"--json", at("r.json"), "--junit", at("r.xml"), "--html", at("page")}));
    BOOST_TEST(result.code == 0);
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
    BOOST_TEST(contains(textOf(at("r.xml")), "initiatorSendPass"));
    BOOST_TEST(contains(textOf(at("page/index.html")), "initiatorSendPass"));
}

BOOST_AUTO_TEST_CASE(aRunThatIsKilledLeavesWhatItKnew) {
    ChildProcess tool(spawn({"--json", at("r.json")}));
    BOOST_REQUIRE(tool.waitForOutput("initiatorRepeatEcho ", longEnough));
    tool.signal(SIGKILL);
    BOOST_REQUIRE(tool.wait(longEnough).has_value());
    const nlohmann::json report = json("r.json");
    BOOST_TEST(report["libraries"][0]["cases"].size() >= 3U);
    // Nobody could tidy up: the kernel ended the programs, the test removes the rest.
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    for (const auto& left : fs::directory_iterator(spawn({}).environment["TMPDIR"].value())) {
        fs::remove_all(left);
    }
}

BOOST_AUTO_TEST_CASE(aPlaceThatCannotBeWrittenIsToldBeforeAnyCase) {
    for (const Arguments& place : std::vector<Arguments>{{"--json", "/proc/r.json"},
                                                         {"--junit", at("no/such/r.xml")},
                                                         {"--html", "/proc/page"}}) {
        const Result result = run(with(sendPass, place));
        BOOST_TEST(result.code == 3);
        BOOST_TEST(result.output == "");
        BOOST_TEST(contains(result.error, place[1]), result.error);
    }
}

BOOST_AUTO_TEST_CASE(aKnownFailureDoesNotFailTheRun) {
    const Arguments broken = {"--case", "initiatorRepeatEcho", "--fault",
                              "receive-payload-altered"};
    BOOST_TEST(run(broken).code == 1);
    write("known", "initiatorRepeatEcho: payload == rpayload  # the service adds a mark\n");
    BOOST_TEST(run(with(broken, {"--expect", at("known")})).code == 0);
    // Whole runs are judged alike.
    BOOST_TEST(run(with(broken, {"--expect", at("known"), "--repeat", "2"})).code == 0);
    const Result mended = run({"--case", "initiatorRepeatEcho", "--expect", at("known")});
    BOOST_TEST(mended.code == 1);
    BOOST_TEST(contains(mended.error, "known:1"));
    write("typo", "initiatorRepeatEco  # no such case\n");
    const Result typo = run({"--expect", at("typo")});
    BOOST_TEST(typo.code == 64);
    BOOST_TEST(contains(typo.error, "initiatorRepeatEcho"), typo.error);
}

BOOST_AUTO_TEST_CASE(repeatsTellHowManyPassedAndWhatGrew) {
    const Result good = run(
        with(sendPass, {"--repeat", "5", "--jobs", "2", "--shuffle", "3", "--json", at("r.json")}));
    BOOST_TEST(good.code == 0);
    BOOST_TEST(contains(good.output, "5 runs, 5 passed"));
    const nlohmann::json repeats = json("r.json")["repeats"];
    BOOST_TEST(repeats["passed"] == 5);
    BOOST_TEST(repeats["growth"].size() == 6U);
    // Two requests of each run.
    BOOST_TEST(repeats["latencies"]["kavri_core_ipc_initiator_command_send"]["count"] == 10);
    const Result bad = run(
        with(sendPass, {"--repeat", "5", "--jobs", "1", "--until-fail", "--fault", "init-fails"}));
    BOOST_TEST(bad.code == 1);
    BOOST_TEST(contains(bad.output, "1 runs, 0 passed"));
}

BOOST_AUTO_TEST_CASE(severalLibrariesAreRunOneAfterTheOther) {
    const std::string ours = fs::path(KAVRI_LIB_DIR);
    const Result result = run(
        with(sendPass, {"--library", ours, "--library", standInFolder, "--json", at("r.json")}));
    BOOST_TEST(result.code == 0);
    const nlohmann::json report = json("r.json");
    BOOST_REQUIRE(report["libraries"].size() == 2U);
    BOOST_TEST(report["libraries"][0]["name"] == ours);
    BOOST_TEST(report["libraries"][1]["name"] == standInFolder);
}

#ifndef KAVRI_SANITIZED  // each of some hundred runs would take many times as long
BOOST_AUTO_TEST_CASE(everyFaultIsNoticedAsTheCatalogueSays) {
    const Result result = run({"--prove", "--time-scale", "3", "--json", at("r.json")});
    BOOST_TEST(result.code == 0, result.output);
    BOOST_TEST(contains(result.output, "0 not as expected"));
    for (const nlohmann::json& check : json("r.json")["matrix"]["checks"]) {
        BOOST_TEST(!check["faults"].empty(), check["caseName"] << ": " << check["check"]);
    }
}
#endif

BOOST_AUTO_TEST_SUITE_END()
