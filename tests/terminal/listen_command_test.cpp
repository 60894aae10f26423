// `kavri listen` and `kavri publish`: what reaches a listener, and when each ends.
#define BOOST_TEST_MODULE listenCommand
#include <boost/test/unit_test.hpp>
#include <csignal>
#include <nlohmann/json.hpp>
#include <regex>

#include "support/fake_broker.h"
#include "support/tool.h"
#include "support/with_broker.h"

using namespace kavri::tests;
using nlohmann::json;

namespace {

struct WithTool : WithBroker {
    WithTool() : WithBroker({.config = "[limits]\npayload_bytes = 100000\n"}) {}
    Tool tool{address};

    // Subscribed on return.
    kavri::process::ChildProcess listen(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "listen");
        kavri::process::ChildProcess listener = tool.start(std::move(arguments));
        BOOST_REQUIRE(listener.waitForError("listening\n", patience));
        return listener;
    }
};

struct WithoutBroker {
    kavri::process::TemporaryFolder folder;
    Tool tool{folder / "broker.sock"};
};

const std::string timePattern = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)";

bool matches(const std::string& text, const std::string& pattern) {
    return std::regex_match(text, std::regex(pattern));
}

std::vector<json> linesOf(const std::string& output) {
    std::vector<json> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(json::parse(line));
    }
    return lines;
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(listening, WithTool)

BOOST_AUTO_TEST_CASE(printsALineForEachEvent) {
    auto listener = listen({"one", "two", "--count", "2"});
    Responder one(address, "one");
    Responder two(address, "two");
    one.publish("one", "first", "payload with blanks");
    BOOST_TEST(listener.waitForOutput("\n", patience));
    two.publish("two", "second", "");
    const Result result = finish(listener);
    BOOST_TEST(result.exit.code == 0);
    BOOST_TEST(matches(result.output, timePattern + " one first payload with blanks\n" +
                                          timePattern + " two second \n"),
               result.output);
    BOOST_TEST(result.error == "kavri listen: listening\n");
}

BOOST_AUTO_TEST_CASE(printsALineOfJsonForEachEvent) {
    auto listener = listen({"one", "--json", "--count", "2"});
    Responder one(address, "one");
    one.publish("one", "first", "two\nlines");
    one.publish("one", "\xff", "\xff\xfe");
    const Result result = finish(listener);
    const std::vector<json> lines = linesOf(result.output);
    BOOST_REQUIRE(lines.size() == 2);
    BOOST_TEST(matches(lines[0].at("time"), timePattern));
    BOOST_TEST(lines[0].at("category") == "one");
    BOOST_TEST(lines[0].at("identifier") == "first");
    BOOST_TEST(lines[0].at("payload") == "two\nlines");
    BOOST_TEST(lines[1].at("identifier_base64") == "/w==");
    BOOST_TEST(lines[1].at("payload_base64") == "//4=");
}

BOOST_AUTO_TEST_CASE(aBurstIsPrintedInOrder) {
    constexpr int count = 5000;
    auto listener = listen({"one", "--count", std::to_string(count), "--json"});
    Responder one(address, "one");
    for (int i = 0; i < count; ++i) {
        BOOST_TEST_REQUIRE(one.publish("one", std::to_string(i), std::string(100, 'x')) == good);
    }
    const std::vector<json> lines = linesOf(finish(listener).output);
    BOOST_REQUIRE(lines.size() == count);
    for (int i = 0; i < count; ++i) {
        BOOST_TEST_REQUIRE(lines[static_cast<std::size_t>(i)].at("identifier") ==
                           std::to_string(i));
    }
}

BOOST_AUTO_TEST_CASE(survivesTheBrokersRestartAndSaysSo) {
    auto listener = listen({"one", "--count", "1"});
    broker.kill();
    BOOST_TEST(listener.waitForError("waiting for the broker to come back\n", patience));
    broker.restart();
    BOOST_TEST(listener.waitForError("events in between were missed\n", patience));
    Responder one(address, "one");
    one.publish("one", "after", "payload");
    const Result result = finish(listener);
    BOOST_TEST(result.exit.code == 0);
    BOOST_TEST(matches(result.output, timePattern + " one after payload\n"), result.output);
}

BOOST_AUTO_TEST_CASE(theTimeAloneIsWhatWasAskedFor) {
    const Result result = tool.run({"listen", "one", "--timeout", "0.05"});
    BOOST_TEST(result.exit.code == 0);
    BOOST_TEST(result.output.empty());
}

BOOST_AUTO_TEST_CASE(tooFewInTimeHasAStatusOfItsOwn) {
    BOOST_TEST(tool.run({"listen", "one", "--timeout", "0.05", "--count", "1"}).exit.code == 2);
}

BOOST_AUTO_TEST_CASE(endsOnceTheReaderHasLeft) {
    auto shell = [this] {
        kavri::process::ChildSpawn spawn =
            tool.spawn({"-c", "\"$kavri\" listen one | head -n 1; echo \"${PIPESTATUS[0]}\""});
        spawn.environment["kavri"] = spawn.program;
        spawn.program = "bash";
        return kavri::process::ChildProcess(spawn);
    }();
    BOOST_REQUIRE(shell.waitForError("listening\n", patience));
    Responder(address, "one").publish("one", "only", "");
    const Result result = finish(shell);
    BOOST_TEST(matches(result.output, timePattern + " one only \n0\n"), result.output);
}

BOOST_AUTO_TEST_CASE(whatCannotBePrintedEndsIt) {
    kavri::process::ChildSpawn spawn = tool.spawn({"listen", "one"});
    spawn.captureOutput = false;
    spawn.logFile = "/dev/full";
    kavri::process::ChildProcess listener(spawn);
    BOOST_REQUIRE(listener.waitForError("listening\n", patience));
    Responder(address, "one").publish("one", "only", "");
    const Result result = finish(listener);
    BOOST_TEST(result.exit.code == 74);
    BOOST_TEST(result.error.find("No space left") != std::string::npos, result.error);
}

BOOST_AUTO_TEST_CASE(aSignalEndsIt) {
    auto listener = listen({"one"});
    listener.signal(SIGINT);
    BOOST_TEST(finish(listener).exit.signal == SIGINT);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(publishing, WithTool)

BOOST_AUTO_TEST_CASE(reachesThoseWhoListen) {
    auto listener = listen({"alarms", "--count", "3", "--json"});
    succeeds(tool.run({"publish", "alarms", "fire", "third floor"}), "");
    succeeds(tool.runWith("from\nthe input", {"publish", "alarms", "flood", "-"}), "");
    succeeds(tool.run({"publish", "alarms", "all clear"}), "");
    const std::vector<json> lines = linesOf(finish(listener).output);
    BOOST_REQUIRE(lines.size() == 3);
    BOOST_TEST(lines[0].at("identifier") == "fire");
    BOOST_TEST(lines[0].at("payload") == "third floor");
    BOOST_TEST(lines[1].at("payload") == "from\nthe input");
    BOOST_TEST(lines[2].at("payload") == "");
}

BOOST_AUTO_TEST_CASE(succeedsWhereNobodyListens) {
    succeeds(tool.run({"publish", "alarms", "fire", std::string(100'000, 'x')}), "");
}

BOOST_AUTO_TEST_CASE(theCategoryOfAnotherServiceIsNotTaken) {
    const Responder other(address, "alarms");
    refuses(tool.run({"publish", "alarms", "fire"}), 3, "another program serves the category");
}

BOOST_AUTO_TEST_CASE(whatIsTooLargeIsNotPublished) {
    refuses(tool.run({"publish", "alarms", "fire", std::string(100'001, 'x')}), 3, "payload_bytes");
    refuses(tool.runWith(std::string("\0", 1), {"publish", "alarms", "fire", "-"}), 3, "NUL");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(publishingInTurns, WithoutBroker)

// With the test in the place of the broker, up to the moment when it has the event.
struct HalfPublished {
    explicit HalfPublished(const WithoutBroker& place)
        : broker(place.folder / "broker.sock"),
          running(place.tool.start({"publish", "alarms", "fire", "third floor"})),
          responder(broker.acceptAndWelcome()),
          initiator((acknowledge(responder, FrameType::registration), broker.acceptAndWelcome())) {
        acknowledge(initiator, FrameType::subscribe);
        BOOST_TEST(responder.expect(FrameType::publish).values[Field::payload] == "third floor");
    }

    static void acknowledge(RawPeer& peer, FrameType type) {
        const RawFrame frame = peer.expect(type);
        peer.send(makeFrame(FrameType::acknowledgement, frame.values.token));
    }

    FakeBroker broker;
    kavri::process::ChildProcess running;
    RawPeer responder;
    RawPeer initiator;
};

BOOST_AUTO_TEST_CASE(returnsOnceTheBrokerHasPassedTheEventOn) {
    HalfPublished half(*this);
    BOOST_TEST(!half.running.wait(std::chrono::milliseconds(50)));
    half.initiator.send(makeFrame(FrameType::event, 0,
                                  {.category = "alarms", .identifier = "fire", .payload = "x"}));
    succeeds(finish(half.running), "");
}

BOOST_AUTO_TEST_CASE(aBrokerThatGoesMeanwhileLeavesTheOutcomeUnknown) {
    HalfPublished half(*this);
    half.broker.stopListening();
    half.initiator.close();
    refuses(finish(half.running), 4, "unknown");
}

BOOST_AUTO_TEST_CASE(aRequestMeanwhileIsEndedWithoutAnAnswer) {
    HalfPublished half(*this);
    half.responder.send(
        makeFrame(FrameType::request, 7,
                  {.category = "alarms", .identifier = "list", .uuid = "u", .payload = "p"}));
    BOOST_TEST(half.responder.expect(FrameType::completion).values.token == 7);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(usage, WithoutBroker)

BOOST_AUTO_TEST_CASE(noBrokerIsSaidInOneLine) {
    refuses(tool.run({"listen", "one"}), 3, "broker unavailable: start kavri-broker");
    refuses(tool.run({"publish", "one", "x"}), 3, "broker unavailable: start kavri-broker");
}

BOOST_AUTO_TEST_CASE(wrongUsageIsSaidInOneLine) {
    refuses(tool.run({"listen"}), 64, "CATEGORY");
    refuses(tool.run({"listen", "one", "--cuont", "3"}), 64, "did you mean '--count'?");
    refuses(tool.run({"listen", "one", "--timeout", "soon"}), 64, "'soon' is no number of seconds");
    refuses(tool.run({"lisen", "one"}), 64, "did you mean 'listen'?");
    refuses(tool.run({"publish", "one"}), 64, "IDENTIFIER");
    refuses(tool.run({"publish", "one", "x", "--sockt", "y"}), 64, "did you mean '--socket'?");
}

BOOST_AUTO_TEST_SUITE_END()
