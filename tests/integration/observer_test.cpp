// What the observer that the tool loads into a test module records of its checks.
#define BOOST_TEST_MODULE observer

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <fstream>
#include <map>
#include <sstream>

#include "conformance/module/module_events.h"
#include "process/child_process.h"
#include "process/temporary_folder.h"

using kavri::conformance::ModuleEvent;
using kavri::conformance::ModuleEvents;
using kavri::process::ChildProcess;
using kavri::process::ChildSpawn;
using kavri::process::ExitState;
using kavri::process::TemporaryFolder;
using Kind = kavri::conformance::ModuleEvent::Kind;

namespace {

using Events = std::vector<ModuleEvent>;
using Json = nlohmann::json;

const std::string hostile = "a] != [b has failed [\"\n\"]";

std::string textOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

struct Observed {
    // One run of some cases of the module, under the observer.
    Events run(const std::string& cases, const std::vector<std::string>& arguments = {}) {
        const std::string record = folder / "record";
        const int descriptor = open(record.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        BOOST_REQUIRE(descriptor >= 0);
        ChildSpawn spawn = {
            .program = KAVRI_BIN_DIR "/observed_module",
            .arguments = {"--run_test=" + cases, "--log_level=nothing", "--report_level=no"},
            .environment = {{"LD_PRELOAD", KAVRI_AGENT_DIR "/libkavri-module-observer.so"},
                            // A sanitizer's runtime would come first otherwise.
                            {"ASAN_OPTIONS", "detect_leaks=1:verify_asan_link_order=0"},
                            {"KAVRI_MODULE_EVENTS", std::to_string(descriptor)}},
            .inheritedDescriptors = {descriptor}};
        spawn.environment.insert(environment.begin(), environment.end());
        if (!arguments.empty()) {
            spawn.arguments = {"--run_test=" + cases};
            spawn.arguments.insert(spawn.arguments.end(), arguments.begin(), arguments.end());
        }
        ChildProcess module(spawn);
        close(descriptor);
        const std::optional<ExitState> ended = module.wait(std::chrono::seconds(30));
        BOOST_REQUIRE(ended.has_value());
        exit = *ended;
        output = module.output();
        lines = textOf(record);
        Events events = ModuleEvents().read(lines);
        rounds.clear();
        std::ranges::copy_if(events, std::back_inserter(rounds), isRound);
        std::erase_if(events, isRound);
        return events;
    }

    static bool isRound(const ModuleEvent& event) { return event.kind == Kind::round; }

    TemporaryFolder folder;
    ExitState exit;
    std::string output;
    std::string lines;
    Events rounds;
    std::map<std::string, std::optional<std::string>> environment;
};

void checkKinds(const Events& events, const std::vector<Kind>& expected) {
    BOOST_REQUIRE_EQUAL(events.size(), expected.size());
    for (std::size_t i = 0; i < events.size(); ++i) {
        BOOST_TEST((events[i].kind == expected[i]), "event " << i << ", at " << events[i].text);
    }
}

void checkData(const ModuleEvent& event, const Json& expected) {
    BOOST_TEST(event.text.find("observed_module.cpp(") != std::string::npos, event.text);
    BOOST_TEST(event.data.dump() == expected.dump());
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(observer, Observed)

BOOST_AUTO_TEST_CASE(comparisonsHaveTextMessageAndValues) {
    const Events events = run("checks/comparisons");
    checkKinds(events, {Kind::began, Kind::passed, Kind::failed, Kind::failed, Kind::failed,
                        Kind::failed, Kind::ended});
    BOOST_TEST(exit.code == 201);
    BOOST_TEST(output == "\x1ekavri-case checks/comparisons\n");  // where its output begins
    BOOST_TEST(events.front().text == "checks/comparisons");
    BOOST_TEST(events.back().text == "checks/comparisons");
    checkData(events[1], {{"check", "1 == one"}});
    checkData(events[2],
              {{"check", "hostile == plain"},
               {"left", hostile},
               {"message", "error: check hostile == plain has failed [" + hostile + " != plain]"},
               {"right", "plain"}});
    checkData(events[3],
              {{"check", "plain == hostile"},
               {"left", "plain"},
               {"message", "error: check plain == hostile has failed [plain != " + hostile + "]"},
               {"right", hostile}});
    checkData(events[5], {{"check", "one < 1"},
                          {"left", "1"},
                          {"message", "error: check one < 1 has failed [1 >= 1]"},
                          {"right", "1"}});
}

BOOST_AUTO_TEST_CASE(longValuesAreCutSoThatALineIsWrittenWhole) {
    const Events events = run("checks/comparisons");
    BOOST_REQUIRE(events.size() == 7U);
    BOOST_TEST(events[4].data.at("left") == "");
    BOOST_TEST(events[4].data.at("right") == std::string(800, 'x') + "… (1200 bytes more)");
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        BOOST_TEST(line.size() < 4096U);
    }
}

BOOST_AUTO_TEST_CASE(checksWithoutTwoValuesHaveTextAndMessage) {
    const Events events = run("checks/otherChecks");
    checkKinds(events, {Kind::began, Kind::failed, Kind::failed, Kind::passed, Kind::failed,
                        Kind::failed, Kind::failed, Kind::failed, Kind::ended});
    checkData(events[1], {{"check", "one == 2"}, {"message", "error: check one == 2 has failed"}});
    checkData(events[2],
              {{"check", "one == 2"}, {"message", "error: check one == 2 has failed [1 != 2]"}});
    checkData(events[3], {{"check", "it's 1"}});
    checkData(events[4], {{"check", "it's 2"}, {"message", "error: it's 2"}});
    checkData(events[5], {{"check", "areBoth( one, 0 )"},
                          {"message", "error: check areBoth( one, 0 ) has failed for ( 1, 0 )"}});
    checkData(events[6], {{"check", "no check at all"}, {"message", "error: no check at all"}});
    checkData(events[7],
              {{"check", "one == 3"},
               {"message", "error: check one == 3 has failed; in context: the second round"}});
}

BOOST_AUTO_TEST_CASE(warningsAndMessagesAreNoChecks) {
    checkKinds(run("checks/noChecks"), {Kind::began, Kind::ended});
    BOOST_TEST(exit.code == 0);
}

BOOST_AUTO_TEST_CASE(aCheckIsRecordedOnTheThreadThatMadeIt) {
    const Events events = run("checks/checkOnAThread");
    checkKinds(events, {Kind::began, Kind::failed, Kind::ended});
    BOOST_TEST(events[0].thread == events[2].thread);
    BOOST_TEST(events[1].thread != events[0].thread);
}

BOOST_AUTO_TEST_CASE(aRequiredCheckThatFailsIsFatal) {
    const Events events = run("ends/byARequiredCheck");
    checkKinds(events, {Kind::began, Kind::failed, Kind::ended});
    checkData(events[1], {{"check", "1 == 2"},
                          {"left", "1"},
                          {"message", "fatal error: critical check 1 == 2 has failed [1 != 2]"},
                          {"right", "2"}});
}

BOOST_AUTO_TEST_CASE(anExceptionHasItsMessageAndTheLastCheckpoint) {
    const Events events = run("ends/byAnException");
    checkKinds(events, {Kind::began, Kind::passed, Kind::aborted, Kind::ended});
    BOOST_TEST(events[2].data.at("message") ==
               "std::runtime_error: " + hostile + "; last checkpoint: " + events[1].text);
}

BOOST_AUTO_TEST_CASE(theFormatterThatTheUserChoosesLogsBesideTheObserver) {
    const std::string log = folder / "log.xml";
    const Events events = run("*", {"--log_format=XML", "--log_level=all", "--log_sink=" + log});
    BOOST_TEST(events.size() == 28U);
    const std::string xml = textOf(log);
    BOOST_TEST(xml.ends_with("</TestLog>"));
    BOOST_TEST(xml.find("check one < 1 has failed [1 >= 1]") != std::string::npos);
    BOOST_TEST(xml.find("said by the way") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(severalFormattersOfTheUserLogBesideTheObserver) {
    const std::string log = folder / "log.xml";
    const Events events = run("checks/comparisons", {"--logger=HRF,all,stdout:JUNIT,error," + log});
    BOOST_TEST(events.size() == 7U);
    BOOST_TEST(output.find("check one < 1 has failed [1 >= 1]") != std::string::npos);
    BOOST_TEST(textOf(log).find("<testsuite ") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(theCasesAreRunInAsManyRoundsAsAreAskedFor) {
    checkKinds(run("checks/noChecks"), {Kind::began, Kind::ended});
    BOOST_TEST(rounds.size() == 1U);
    environment["KAVRI_MODULE_ROUNDS"] = "3";
    checkKinds(run("checks/noChecks,comparisons"),
               {Kind::began,  Kind::passed, Kind::failed, Kind::failed, Kind::failed, Kind::failed,
                Kind::ended,  Kind::began,  Kind::ended,  Kind::began,  Kind::passed, Kind::failed,
                Kind::failed, Kind::failed, Kind::failed, Kind::ended,  Kind::began,  Kind::ended,
                Kind::began,  Kind::passed, Kind::failed, Kind::failed, Kind::failed, Kind::failed,
                Kind::ended,  Kind::began,  Kind::ended});
    BOOST_TEST(exit.code == 201);
    BOOST_REQUIRE(rounds.size() == 3U);
    for (unsigned i = 0; i < rounds.size(); ++i) {
        BOOST_TEST(rounds[i].number == i + 1);
        BOOST_TEST(rounds[i].data.at("threads").get<int>() >= 1);
        BOOST_TEST(rounds[i].data.at("descriptors").get<int>() >= 3);
        BOOST_TEST(rounds[i].data.at("residentKiB").get<int>() > 100);
        // Terabytes with a sanitizer.
        BOOST_TEST(rounds[i].data.at("mappedKiB").get<std::int64_t>() > 100);
    }
}

// As a process of its own with the next seed would have it.
BOOST_AUTO_TEST_CASE(eachRoundHasTheOrderOfTheNextSeed) {
    const auto order = [this](const std::string& seed) {
        std::vector<std::string> names;
        for (const ModuleEvent& event :
             run("*", {"--random=" + seed, "--log_level=nothing", "--report_level=no"})) {
            if (event.kind == Kind::began) {
                names.push_back(event.text);
            }
        }
        return names;
    };
    std::vector<std::string> expected;
    for (const char* seed : {"5", "6", "7"}) {
        const std::vector<std::string> one = order(seed);
        expected.insert(expected.end(), one.begin(), one.end());
    }
    environment["KAVRI_MODULE_ROUNDS"] = "3";
    BOOST_TEST(order("5") == expected, boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(aThreadThatWasJoinedIsNotCounted) {
    environment["KAVRI_MODULE_ROUNDS"] = "20";
    run("checks/checkOnAThread");
    BOOST_REQUIRE(rounds.size() == 20U);
    for (const ModuleEvent& round : rounds) {
        BOOST_TEST(round.data.at("threads") == rounds[0].data.at("threads"));
    }
}

BOOST_AUTO_TEST_SUITE_END()
