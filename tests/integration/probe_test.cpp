// The probe under the real module, with the real library, broker and service:
// what it records, what it breaks, and what it finds out about a peer.
#define BOOST_TEST_MODULE probe

#include <fcntl.h>
#include <kavri/core.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "conformance/agent/record.h"
#include "process/temporary_folder.h"
#include "support/service_process.h"

using kavri::process::ChildProcess;
using kavri::process::ChildSpawn;
using kavri::process::ExitState;
using kavri::process::TemporaryFolder;
using kavri::tests::BrokerProcess;
using kavri::tests::patience;
using nlohmann::json;

namespace {

// A line of the record, taken apart.
struct Line {
    std::string kind;
    long long atNs = 0;
    int thread = 0;
    unsigned number = 0;  // of calls and deliveries
    std::string name;     // of a function, callback or fault; or "ok", "missing"
    json details;
};

Line parsed(const std::string& text) {
    Line line;
    std::istringstream stream(text);
    stream >> line.kind >> line.atNs >> line.thread;
    if (line.kind == "call" || line.kind == "deliver") {
        stream >> line.number >> line.name;
    } else if (line.kind == "return" || line.kind == "delivered" || line.kind == "breach" ||
               line.kind == "crash" || line.kind == "exit") {
        stream >> line.number;
    } else if (line.kind == "fault" || line.kind == "peer") {
        stream >> line.name;
    }
    std::string rest;
    std::getline(stream, rest);
    line.details = rest.empty() ? json() : json::parse(rest);
    return line;
}

using Lines = std::vector<Line>;

struct Result {
    ExitState exit;
    Lines lines;
    std::string text;
    std::string error;
};

class Bench {
  public:
    void startBroker(const kavri::tests::BrokerSettings& settings = {.testService = true}) {
        broker_.emplace(socket_, settings);
    }

    // One run of the module, under the probe.
    Result run(const std::string& cases,
               const std::map<std::string, std::optional<std::string>>& environment = {}) {
        const std::string file = folder_ / "record";
        const int record = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        BOOST_REQUIRE(record >= 0);
        ChildSpawn spawn = {
            .program = KAVRI_BIN_DIR "/test_ipc_initiator",
            .arguments = {"--run_test=" + cases, "--catch_system_errors=no", "--log_level=error"},
            .environment = {{"LD_PRELOAD", KAVRI_AGENT_DIR "/libkavri-probe.so"},
                            // A sanitizer's runtime would come first otherwise.
                            {"ASAN_OPTIONS", "detect_leaks=1:verify_asan_link_order=0"},
                            {"TSAN_OPTIONS", "handle_segv=0:handle_abort=0"},
                            {"KAVRI_BROKER", socket_.string()},
                            {"KAVRI_MODULE_EVENTS", std::to_string(record)}},
            .inheritedDescriptors = {record}};
        for (const auto& [name, value] : environment) {
            spawn.environment[name] = value;
        }
        ChildProcess module(spawn);
        ::close(record);
        const std::optional<ExitState> exit = module.wait(patience);
        BOOST_REQUIRE(exit.has_value());
        Result result = {*exit, {}, {}, module.error()};
        std::ifstream stream(file);
        for (std::string line; std::getline(stream, line);) {
            result.text += line + "\n";
            result.lines.push_back(parsed(line));
        }
        return result;
    }

  private:
    TemporaryFolder folder_;
    std::filesystem::path socket_ = folder_ / "broker.sock";
    std::optional<BrokerProcess> broker_;
};

std::size_t count(const Lines& lines, const std::string& kind, const std::string& name = "") {
    return static_cast<std::size_t>(std::ranges::count_if(lines, [&](const Line& line) {
        return line.kind == kind && (name.empty() || line.name == name);
    }));
}

Lines ofKind(const Lines& lines, const std::string& kind) {
    Lines result;
    std::ranges::copy_if(lines, std::back_inserter(result),
                         [&](const Line& line) { return line.kind == kind; });
    return result;
}

std::vector<std::string> namesOf(const Lines& lines, const std::string& kind) {
    std::vector<std::string> names;
    for (const Line& line : ofKind(lines, kind)) {
        names.push_back(line.name);
    }
    return names;
}

// Of a fault that fired.
void checkFired(const Result& result, const std::string& fault, std::size_t times) {
    BOOST_TEST(count(result.lines, "fault", fault) == times);
    for (const Line& line : ofKind(result.lines, "fault")) {
        BOOST_TEST(line.details.at("number").get<unsigned>() > 0U);
        BOOST_TEST(!line.details.at("did").get<std::string>().empty());
    }
}

const std::string passCase = "initiatorSend/initiatorSendPass";
const std::string echoCase = "initiatorSend/initiatorRepeatEcho";
const std::string callbackCase = "initiatorSend/initiatorRepeatCallback";

}  // namespace

BOOST_FIXTURE_TEST_SUITE(probe, Bench)

BOOST_AUTO_TEST_CASE(aCleanRunIsRecordedCallByCall) {
    startBroker();
    const Result result = run("*");
    BOOST_TEST(result.exit.succeeded());
    BOOST_TEST(count(result.lines, "call", "kavri_core_init") == 8U);
    BOOST_TEST(count(result.lines, "call", "kavri_core_ipc_deinit") == 8U);
    BOOST_TEST(count(result.lines, "call", "kavri_core_ipc_initiator_command_send") == 65U);
    BOOST_TEST(count(result.lines, "call", "kavri_core_ipc_initiator_event_subscribe") == 1U);
    BOOST_TEST(count(result.lines, "call") == count(result.lines, "return"));
    BOOST_TEST(count(result.lines, "deliver", "response") == 10U);
    BOOST_TEST(count(result.lines, "deliver", "event") == 10U);
    BOOST_TEST(count(result.lines, "delivered") == 20U);
    BOOST_TEST(count(result.lines, "left") == 0U);
    BOOST_TEST(count(result.lines, "breach") == 0U);
    BOOST_TEST(count(result.lines, "fault") == 0U);
    BOOST_TEST(count(result.lines, "peer") == 0U);
}

BOOST_AUTO_TEST_CASE(callsAndDeliveriesAreNumberedTogether) {
    startBroker();
    const Result result = run(callbackCase);
    std::set<unsigned> numbers;
    for (const char* kind : {"call", "deliver"}) {
        for (const Line& line : ofKind(result.lines, kind)) {
            BOOST_TEST(numbers.insert(line.number).second);
        }
    }
    BOOST_TEST(numbers.size() == 28U);
    BOOST_TEST(*numbers.begin() == 1U);
    BOOST_TEST(*numbers.rbegin() == 28U);
}

BOOST_AUTO_TEST_CASE(theCallsOfACaseAreInOrder) {
    startBroker();
    const Result result = run(passCase);
    const std::vector<std::string> expected = {"kavri_core_init",
                                               "kavri_core_logging_init",
                                               "kavri_core_ipc_initiator_init",
                                               "kavri_core_ipc_initiator_command_send",
                                               "kavri_core_ipc_initiator_command_send",
                                               "kavri_core_ipc_initiator_response_receive",
                                               "kavri_core_ipc_deinit",
                                               "kavri_core_logging_deinit",
                                               "kavri_core_deinit"};
    BOOST_TEST(namesOf(result.lines, "call") == expected, boost::test_tools::per_element());
    BOOST_TEST(std::ranges::is_sorted(result.lines, {}, &Line::atNs));
}

BOOST_AUTO_TEST_CASE(argumentsAndResultsAreRecorded) {
    startBroker();
    const Lines lines = run(passCase).lines;
    const Lines calls = ofKind(lines, "call");
    const Lines returns = ofKind(lines, "return");
    BOOST_REQUIRE(calls.size() == 9U);
    BOOST_REQUIRE(returns.size() == 9U);
    BOOST_TEST(calls[1].details == json({{"name", "ipcInitiatorTest"}}));
    BOOST_TEST(returns[2].details == json({{"status", 0}, {"handle", true}, {"initiator", 1}}));
    BOOST_TEST(calls[3].details == json({{"initiator", 1},
                                         {"targetCategory", "test"},
                                         {"targetIdentifier", "initiator"},
                                         {"uuid", "0"},
                                         {"payload", "this is my payload"}}));
    BOOST_TEST(calls[5].details == json({{"initiator", 1}, {"timeout", -1}}));
    BOOST_TEST(calls[6].details == json({{"initiator", 1}}));
    BOOST_TEST(calls[7].details == json({{"cookie", "opened"}}));
    BOOST_TEST(returns[5].details.at("status") == 0);
    BOOST_TEST(returns[5].details.at("uuid") == "0");
    BOOST_TEST(returns[5].details.contains("payload"));
}

BOOST_AUTO_TEST_CASE(deliveriesAreRecordedWithTheModulesContext) {
    startBroker();
    const Lines lines = run(callbackCase).lines;
    const Lines deliveries = ofKind(lines, "deliver");
    BOOST_REQUIRE(deliveries.size() == 10U);
    for (std::size_t i = 0; i < deliveries.size(); ++i) {
        BOOST_TEST(deliveries[i].name == "response");
        BOOST_TEST(deliveries[i].details.at("uuid") == std::to_string(i));
        BOOST_TEST(deliveries[i].details.at("payload") == "my static payload");
        BOOST_TEST(deliveries[i].details.at("context") == "0x87654321");
        BOOST_TEST(deliveries[i].thread != lines.front().thread);
    }
    std::vector<json> installations;
    for (const Line& line : ofKind(lines, "call")) {
        if (line.name == "kavri_core_ipc_initiator_response_receive_callback") {
            installations.push_back(line.details);
        }
    }
    BOOST_REQUIRE(installations.size() == 2U);
    BOOST_TEST(installations[0] ==
               json({{"initiator", 1}, {"callback", "installed"}, {"context", "0x87654321"}}));
    BOOST_TEST(installations[1] ==
               json({{"initiator", 1}, {"callback", nullptr}, {"context", nullptr}}));
}

BOOST_AUTO_TEST_CASE(aTextIsCutSoThatFourFitIntoALine) {
    using kavri::conformance::shortened;
    BOOST_TEST(shortened(nullptr).is_null());
    BOOST_TEST(shortened("short").get<std::string>() == "short");
    BOOST_TEST(shortened(std::string(200, 'a').c_str()).get<std::string>() ==
               std::string(200, 'a'));
    BOOST_TEST(shortened(std::string(201, 'a').c_str()).get<std::string>() ==
               std::string(200, 'a') + "…");
    const auto wide = shortened(std::string(1000, '\1').c_str());  // each takes six bytes in JSON
    BOOST_TEST(wide.dump().size() <= 900U);
    BOOST_TEST(wide.get<std::string>().ends_with("…"));
}

BOOST_AUTO_TEST_CASE(whatTheLibraryLeavesBehindIsCounted) {
    startBroker();
    BOOST_TEST(count(run(passCase).lines, "left") == 0U);
    const Lines left =
        ofKind(run(passCase, {{"KAVRI_PROBE_FAULT", "deinit-leaks-descriptor"}}).lines, "left");
    BOOST_REQUIRE(left.size() == 1U);
    BOOST_TEST(left[0].details == json({{"descriptors", 1}}));
}

BOOST_AUTO_TEST_CASE(aStringThatNobodyAllocatedIsABreach) {
    startBroker();
    const Result result = run(echoCase, {{"KAVRI_PROBE_FAULT", "receive-string-not-allocated"}});
    const Lines breaches = ofKind(result.lines, "breach");
    BOOST_REQUIRE(!breaches.empty());
    BOOST_TEST(breaches[0].details == json({{"rule", "allocated-strings"},
                                            {"what", "payload lies within libkavri-probe.so"}}));
}

BOOST_AUTO_TEST_CASE(aCrashLeavesTheRecordUpToTheCall) {
    startBroker();
    const Result result = run(echoCase, {{"KAVRI_PROBE_FAULT", "receive-crashes"}});
    BOOST_TEST(!result.exit.succeeded());
    BOOST_REQUIRE(result.lines.size() >= 4U);
    const Line& stack = result.lines.back();
    const Line& crash = result.lines[result.lines.size() - 2];
    const Line& fault = result.lines[result.lines.size() - 3];
    const Line& call = result.lines[result.lines.size() - 4];
    BOOST_TEST(stack.kind == "stack");
    BOOST_TEST(stack.thread == crash.thread);
    BOOST_TEST(stack.details.at("frames").size() > 1U);
    BOOST_TEST(crash.kind == "crash");
    BOOST_TEST(crash.number == unsigned{SIGSEGV});
    BOOST_TEST(crash.thread == call.thread);
    BOOST_TEST(fault.kind == "fault");
    BOOST_TEST(fault.details.at("number") == call.number);
    BOOST_TEST(call.kind == "call");
    BOOST_TEST(call.name == "kavri_core_ipc_initiator_response_receive");
    BOOST_TEST(count(result.lines, "return") == count(result.lines, "call") - 1);
}

BOOST_AUTO_TEST_CASE(aCallThatEndsTheProcessIsRecordedBeforeIt) {
    startBroker();
    const Result result = run(echoCase, {{"KAVRI_PROBE_FAULT", "send-exits"}});
    const Lines exits = ofKind(result.lines, "exit");
    BOOST_REQUIRE(exits.size() == 1U);
    BOOST_TEST(exits[0].number == 0U);
    BOOST_TEST(exits[0].details.at("function") == "_exit");
    BOOST_TEST(count(result.lines, "crash") == 0U);
    BOOST_TEST(result.exit.succeeded());
}

BOOST_AUTO_TEST_CASE(eventsAtTheSameTimeOverlapInTheRecord) {
    startBroker();
    const Result result = run("initiatorEvent/initiatorRepeatEventCallback",
                              {{"KAVRI_PROBE_FAULT", "event-two-at-once"}});
    BOOST_TEST(result.exit.succeeded());
    // Both have begun before either ends.
    std::vector<std::string> kinds;
    for (const Line& line : result.lines) {
        if (line.kind.starts_with("deliver")) {
            kinds.push_back(line.kind);
        }
    }
    BOOST_REQUIRE(kinds.size() == 20U);
    BOOST_TEST(kinds[0] == "deliver");
    BOOST_TEST(kinds[1] == "deliver");
}

BOOST_AUTO_TEST_CASE(aCallIsBrokenAndTheRecordShowsWhatTheModuleGot) {
    startBroker();
    const Result result = run(echoCase, {{"KAVRI_PROBE_FAULT", "receive-uuid-constant"}});
    BOOST_TEST(result.exit.code == 201);  // the framework's status for failed checks
    checkFired(result, "receive-uuid-constant", 10);
    for (const Line& line : ofKind(result.lines, "return")) {
        BOOST_TEST((!line.details.contains("uuid") || line.details.at("uuid") == "7"));
    }
}

BOOST_AUTO_TEST_CASE(aDeliveryIsLost) {
    startBroker();
    const Result result = run(callbackCase, {{"KAVRI_PROBE_FAULT", "response-lost"}});
    BOOST_TEST(result.exit.code == 201);
    checkFired(result, "response-lost", 1);
    BOOST_TEST(count(result.lines, "deliver") == 9U);
}

BOOST_AUTO_TEST_CASE(deliveriesAreSwapped) {
    startBroker();
    const Result result = run(callbackCase, {{"KAVRI_PROBE_FAULT", "response-swapped"}});
    BOOST_TEST(result.exit.code == 201);
    const Lines deliveries = ofKind(result.lines, "deliver");
    BOOST_REQUIRE(deliveries.size() == 10U);
    BOOST_TEST(deliveries[0].details.at("uuid") == "1");
    BOOST_TEST(deliveries[1].details.at("uuid") == "0");
}

BOOST_AUTO_TEST_CASE(aDelayedDeliveryArrivesWhenTheInitiatorEnds) {
    startBroker();
    const Result result = run(callbackCase, {{"KAVRI_PROBE_FAULT", "response-removal-too-early"}});
    BOOST_TEST(result.exit.code == 201);
    const auto ended = std::ranges::find(result.lines, "kavri_core_ipc_deinit", &Line::name);
    BOOST_REQUIRE((ended != result.lines.end()));
    BOOST_TEST(count({ended, result.lines.end()}, "deliver") == 1U);
    BOOST_TEST(count(result.lines, "deliver") == 10U);
}

BOOST_AUTO_TEST_CASE(anUnknownFaultEndsTheRunWithAReason) {
    startBroker();
    const Result result = run(passCase, {{"KAVRI_PROBE_FAULT", "no-such-fault"}});
    BOOST_TEST(result.exit.code == 3);
    BOOST_TEST(result.error.find("kavri-probe: no fault \"no-such-fault\"") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(withoutADescriptorNothingIsRecorded) {
    startBroker();
    const Result result = run(passCase, {{"KAVRI_MODULE_EVENTS", std::nullopt}});
    BOOST_TEST(result.exit.succeeded());
    BOOST_TEST(result.text == "");
}

// The one case that needs no answer.
const std::string refusingCase = "initiatorSend/initiatorFailReceiveWithCallback";

BOOST_AUTO_TEST_CASE(aPeerThatWasNotSeenIsAskedPastAllFaults) {
    startBroker();
    const Result result = run(refusingCase, {{"KAVRI_PROBE_CHECK_PEER", "1"},
                                             {"KAVRI_PROBE_FAULT", "send-reports-failure"}});
    const Lines peer = ofKind(result.lines, "peer");
    BOOST_REQUIRE(peer.size() == 1U);
    BOOST_TEST(peer[0].name == "ok");
    BOOST_TEST(peer[0].details.at("us").get<long>() > 0);
    checkFired(result, "send-reports-failure", 0);
}

BOOST_AUTO_TEST_CASE(aPeerThatAnsweredIsNotAsked) {
    startBroker();
    const Result result = run(passCase, {{"KAVRI_PROBE_CHECK_PEER", "1"}});
    BOOST_TEST(count(result.lines, "peer") == 0U);
    BOOST_TEST(count(result.lines, "call") == 9U);
}

BOOST_AUTO_TEST_CASE(withoutATestServiceThePeerIsMissing) {
    startBroker({});
    const Result result = run(refusingCase, {{"KAVRI_PROBE_CHECK_PEER", "1"}});
    const Lines peer = ofKind(result.lines, "peer");
    BOOST_REQUIRE(peer.size() == 1U);
    BOOST_TEST(peer[0].name == "missing");
    BOOST_TEST(peer[0].details.at("reason") ==
               "kavri_core_ipc_initiator_response_receive returned " +
                   std::to_string(KAVRI_CORE_STATUS_IPC_NO_RESPONDER));
}

BOOST_AUTO_TEST_SUITE_END()
