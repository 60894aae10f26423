// `kavri request`: what it prints, and the exit status of each outcome.
#define BOOST_TEST_MODULE requestCommand
#include <boost/test/unit_test.hpp>
#include <csignal>
#include <nlohmann/json.hpp>

#include "support/fake_broker.h"
#include "support/tool.h"
#include "support/with_broker.h"

using namespace kavri::tests;
using nlohmann::json;

namespace {

struct WithTool : WithBroker {
    WithTool()
        : WithBroker({.testService = true, .config = "[limits]\npayload_bytes = 100000\n"}) {}
    Tool tool{address};
};

struct WithoutBroker {
    kavri::process::TemporaryFolder folder;
    Tool tool{folder / "broker.sock"};
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(one, WithTool)

BOOST_AUTO_TEST_CASE(printsThePayloadAsItIs) {
    succeeds(tool.run({"request", "test", "echo", "hello"}), "hello");
    succeeds(tool.run({"request", "test", "echo", "two\nlines\x1b[31m\xff"}),
             "two\nlines\x1b[31m\xff");
    succeeds(tool.run({"request", "test", "echo"}), "");
}

BOOST_AUTO_TEST_CASE(takesThePayloadFromStandardInput) {
    const std::string large(100'000, 'x');
    succeeds(tool.runWith(large, {"request", "test", "echo", "-"}), large);
    succeeds(tool.runWith("", {"request", "test", "echo", "-"}), "");
}

BOOST_AUTO_TEST_CASE(anyTextIsAPayload) {
    for (const char* text : {"-5", "--socket", "{}", "[]", "''", "\"\"", "bench"}) {
        succeeds(tool.run({"request", "test", "echo", "--", text}), text);
    }
}

BOOST_AUTO_TEST_CASE(aCategoryMayBeCalledLikeACommand) {
    Responder responder(address, "bench");
    auto running = tool.start({"request", "bench", "", "payload"});
    const Message request = responder.receive();
    BOOST_TEST(request.identifier.value() == "");
    BOOST_TEST(request.payload.value() == "payload");
    BOOST_TEST(request.uuid.value().size() == 36);
    responder.answer(request, nullptr);
    succeeds(finish(running), "");
}

BOOST_AUTO_TEST_CASE(printsJson) {
    const Result text = tool.run({"request", "test", "echo", "a \"b\"\n", "--json"});
    BOOST_TEST_REQUIRE(text.exit.code == 0);
    const auto answered = json::parse(text.output);
    BOOST_TEST(answered.at("outcome") == "answered");
    BOOST_TEST(answered.at("category") == "test");
    BOOST_TEST(answered.at("identifier") == "echo");
    BOOST_TEST(answered.at("payload") == "a \"b\"\n");
    BOOST_TEST(answered.at("uuid").get<std::string>().size() == 36);
    BOOST_TEST(answered.at("latency_us") > 0);

    const std::pair<std::string, std::string> encoded[] = {{"\xff", "/w=="},
                                                           {"\xff\xfe", "//4="},
                                                           {"\xff\xfe\xfd", "//79"},
                                                           {"\xff\xfe\xfd!", "//79IQ=="}};
    for (const auto& [bytes, base64] : encoded) {
        const Result result = tool.run({"request", "test", "echo", bytes, "--json"});
        BOOST_TEST_REQUIRE(result.exit.code == 0);
        BOOST_TEST(json::parse(result.output).at("payload_base64") == base64);
        BOOST_TEST(!json::parse(result.output).contains("payload"));
    }
}

BOOST_AUTO_TEST_CASE(whatIsEndedWithoutAnAnswerIsSaidAtOnce) {
    refuses(tool.run({"request", "test", "inc_repeat_count"}), 1, "without an answer");
    const Result result = tool.run({"request", "test", "inc_repeat_count", "--json"});
    BOOST_TEST(result.exit.code == 1);
    BOOST_TEST(json::parse(result.output).at("outcome") == "unanswered");
}

BOOST_AUTO_TEST_CASE(aServiceThatKeepsSilentIsNotWaitedForWithoutEnd) {
    const Responder responder(address, "silent");
    refuses(tool.run({"request", "silent", "x", "--timeout", "0.05"}), 2, "within 0.05 s");
}

BOOST_AUTO_TEST_CASE(whatCannotBeDeliveredIsSaid) {
    refuses(tool.run({"request", "nobody", "x"}), 3, "nobody serves the category");
    refuses(tool.run({"request", "test", "echo", std::string(100'001, 'x')}), 3, "payload_bytes");
    refuses(tool.run({"request", std::string(70'000, 'x'), "echo"}), 3, "payload_bytes");
    const Result result = tool.run({"request", "nobody", "x", "--json"});
    BOOST_TEST(result.exit.code == 3);
    BOOST_TEST(json::parse(result.output).at("outcome") == "not_delivered");
    BOOST_TEST(json::parse(result.output).at("reason") == "no responder");
}

BOOST_AUTO_TEST_CASE(aPayloadThatNoFieldHoldsIsRefused) {
    refuses(tool.runWith(std::string("a\0b", 3), {"request", "test", "echo", "-"}), 3, "byte 2");
}

BOOST_AUTO_TEST_CASE(aServiceThatEndsMeanwhileLeavesTheOutcomeUnknown) {
    Responder responder(address, "mortal");
    auto running = tool.start({"request", "mortal", "x"});
    responder.receive();
    responder.end();
    refuses(finish(running), 4, "unknown: responder lost");
}

BOOST_AUTO_TEST_CASE(aBrokerThatIsKilledMeanwhileLeavesTheOutcomeUnknown) {
    Responder responder(address, "silent");
    auto running = tool.start({"request", "silent", "x"});
    responder.receive();
    broker.kill();
    refuses(finish(running), 4, "unknown: connection lost");
}

BOOST_AUTO_TEST_CASE(aSignalEndsIt) {
    Responder responder(address, "silent");
    auto running = tool.start({"request", "silent", "x"});
    responder.receive();
    running.signal(SIGINT);
    const Result result = finish(running);
    BOOST_TEST(result.exit.signal == SIGINT);
    BOOST_TEST(result.output.empty());
}

BOOST_AUTO_TEST_CASE(whatCannotBePrintedHasAStatusOfItsOwn) {
    const Result result = tool.runOnFullDisk({"request", "test", "echo", "hello"});
    BOOST_TEST(result.exit.code == 74);
    BOOST_TEST(result.error.find("No space left") != std::string::npos, result.error);
}

BOOST_AUTO_TEST_CASE(aReaderWhoHasLeftIsNoFailure) {
    const Result result =
        tool.runInShell("{ sleep 0.1; \"$kavri\" request test echo hello; echo $? >&2; } | true");
    BOOST_TEST(result.error == "0\n");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(many, WithTool)

BOOST_AUTO_TEST_CASE(showsWhatBecameOfThem) {
    const Result result = tool.run({"request", "test", "echo", "hello", "--count", "20"});
    BOOST_TEST(result.exit.code == 0, result.error);
    BOOST_TEST(result.output.starts_with("20 requests in "), result.output);
    BOOST_TEST(result.output.find("\nanswered            20\nlatency  p50 ") != std::string::npos,
               result.output);
    BOOST_TEST(result.error.empty());
}

BOOST_AUTO_TEST_CASE(countsEachOutcome) {
    Responder responder(address, "moody");
    auto running =
        tool.start({"request", "moody", "x", "--count", "5", "--timeout", "0.5", "--json"});
    responder.answer(responder.receive(), "one");
    responder.finish(responder.receive());
    responder.receive();  // times out
    responder.answer(responder.receive(), "four");
    responder.receive();
    responder.end();  // lost
    const Result result = finish(running);
    BOOST_TEST(result.exit.code == 4);
    const auto report = json::parse(result.output);
    BOOST_TEST(report.at("requests") == 5);
    BOOST_TEST(report.at("outcomes").at("answered") == 2);
    BOOST_TEST(report.at("outcomes").at("unanswered") == 1);
    BOOST_TEST(report.at("outcomes").at("timed_out") == 1);
    BOOST_TEST(report.at("outcomes").at("unknown") == 1);
    BOOST_TEST(report.at("outcomes").at("not_delivered") == 0);
    BOOST_TEST(report.at("reasons").at("responder lost") == 1);
    BOOST_TEST(report.at("latency_us").at("max") >= report.at("latency_us").at("min"));
}

BOOST_AUTO_TEST_CASE(anAnswerThatComesTooLateIsNotTakenForTheNext) {
    Responder responder(address, "slow");
    auto running =
        tool.start({"request", "slow", "x", "--count", "2", "--timeout", "0.5", "--json"});
    const Message first = responder.receive();
    const Message second = responder.receive();
    responder.answer(first, "late");
    responder.finish(second);
    const auto report = json::parse(finish(running).output);
    BOOST_TEST(report.at("outcomes").at("timed_out") == 1);
    BOOST_TEST(report.at("outcomes").at("unanswered") == 1);
}

BOOST_AUTO_TEST_CASE(withoutAnAnswerThereAreNoLatencies) {
    const Result text = tool.run({"request", "nobody", "x", "--count", "3"});
    BOOST_TEST(text.exit.code == 3);
    BOOST_TEST(text.output.find("not delivered        3  no responder: nobody serves") !=
                   std::string::npos,
               text.output);
    BOOST_TEST(text.output.find("latency") == std::string::npos);
    const Result report = tool.run({"request", "nobody", "x", "--count", "3", "--json"});
    BOOST_TEST(json::parse(report.output).at("latency_us").is_null());
}

BOOST_AUTO_TEST_CASE(atARateTheyDoNotWaitForEachOther) {
    Responder responder(address, "slow");
    auto running = tool.start({"request", "slow", "x", "--count", "3", "--rate", "1000", "--json"});
    std::vector<Message> requests;
    while (requests.size() < 3) {
        requests.push_back(responder.receive());
    }
    for (const Message& request : requests) {
        responder.answer(request, "");
    }
    const Result result = finish(running);
    BOOST_TEST(result.exit.code == 0);
    BOOST_TEST(json::parse(result.output).at("outcomes").at("answered") == 3);
}

BOOST_AUTO_TEST_CASE(atARateTheyTakeTheirTime) {
    const Result result =
        tool.run({"request", "test", "echo", "--count", "3", "--rate", "20", "--json"});
    BOOST_TEST(json::parse(result.output).at("seconds") >= 0.1);
}

BOOST_AUTO_TEST_CASE(aSignalShowsWhatThereWasUntilThen) {
    Responder responder(address, "moody");
    auto running = tool.start({"request", "moody", "x", "--count", "100"});
    responder.answer(responder.receive(), "one");
    responder.receive();
    running.signal(SIGINT);
    const Result result = finish(running);
    BOOST_TEST(result.exit.signal == SIGINT);
    BOOST_TEST(result.output.find("answered             1\n") != std::string::npos, result.output);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(usage, WithoutBroker)

BOOST_AUTO_TEST_CASE(noBrokerIsSaidInOneLine) {
    refuses(tool.run({"request", "test", "echo"}), 3, "broker unavailable: start kavri-broker");
    refuses(tool.run({"request", "test", "echo", "--count", "2"}), 3, "broker unavailable");
    refuses(tool.run({"request", "test", "echo", "--socket", std::string(200, 'x')}), 3, "107");
}

BOOST_AUTO_TEST_CASE(aBrokerThatKeepsSilentIsNotWaitedForLonger) {
    FakeBroker broker(folder / "broker.sock");
    const auto begin = std::chrono::steady_clock::now();
    refuses(tool.run({"request", "test", "echo", "--timeout", "0.2"}), 3, "broker unavailable");
    BOOST_TEST((std::chrono::steady_clock::now() - begin < std::chrono::seconds(4)));
}

BOOST_AUTO_TEST_CASE(wrongUsageIsSaidInOneLine) {
    refuses(tool.run({"request"}), 64, "CATEGORY");
    refuses(tool.run({"request", "test"}), 64, "COMMAND");
    refuses(tool.run({"request", "", "echo"}), 64, "empty");
    refuses(tool.run({"request", "test", "echo", "a", "b"}), 64, "b");
    refuses(tool.run({"request", "test", "echo", "--tiemout", "3"}), 64,
            "did you mean '--timeout'?");
    refuses(tool.run({"request", "test", "echo", "--count", "0"}), 64, "--count");
    refuses(tool.run({"request", "test", "echo", "--rate", "3"}), 64, "--count");
    refuses(tool.run({"reqest", "test", "echo"}), 64, "did you mean 'request'?");
}

BOOST_AUTO_TEST_SUITE_END()
