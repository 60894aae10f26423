// `kavri monitor` against the real broker: what it prints of what passes, what it leaves
// out, and how it ends.
#define BOOST_TEST_MODULE monitorCommand

#include <boost/test/unit_test.hpp>
#include <nlohmann/json.hpp>

#include "process/child_process.h"
#include "support/raw_peer.h"
#include "support/with_broker.h"

using namespace kavri::tests;
using kavri::process::ChildProcess;
using Json = nlohmann::json;

namespace {

class MonitorProcess : public ChildProcess {
  public:
    MonitorProcess(const std::string& socket, std::vector<std::string> arguments)
        : ChildProcess(spawn(socket, std::move(arguments))) {
        BOOST_REQUIRE_MESSAGE(waitForError("shows what passes", patience), error());
    }

    static kavri::process::ChildSpawn spawn(const std::string& socket,
                                            std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"monitor", "--socket", socket});
        return {.program = KAVRI_BIN_DIR "/kavri", .arguments = std::move(arguments)};
    }

    int status() {
        const auto exit = wait(patience);
        BOOST_REQUIRE(exit);
        BOOST_TEST(exit->signal == 0);
        return exit->code;
    }
    std::vector<Json> jsonLines() {
        BOOST_TEST(status() == 0);
        std::vector<Json> lines;
        std::string rest = output();
        for (std::size_t end = 0; (end = rest.find('\n')) != std::string::npos;
             rest.erase(0, end + 1)) {
            lines.push_back(Json::parse(rest.substr(0, end)));
        }
        BOOST_TEST(rest.empty());
        return lines;
    }
};

struct Ended {
    int status = -1;
    std::string output;
    std::string error;
};

// Of one that ends by itself.
Ended monitor(const std::string& socket, std::vector<std::string> arguments) {
    ChildProcess process(MonitorProcess::spawn(socket, std::move(arguments)));
    const auto exit = process.wait(patience);
    BOOST_REQUIRE(exit);
    BOOST_TEST(exit->signal == 0);
    return {exit->code, process.output(), process.error()};
}

void refuses(const Ended& ended, int status, const std::string& reason) {
    BOOST_TEST(ended.status == status);
    BOOST_TEST(ended.output.empty());
    BOOST_TEST(std::ranges::count(ended.error, '\n') == 1);
    BOOST_TEST(ended.error.find(reason) != std::string::npos, ended.error);
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(monitorCommand, WithBroker)

BOOST_AUTO_TEST_CASE(printsALineForEachFrame) {
    Initiator initiator(address);
    MonitorProcess monitor(address, {"--count", "2"});
    BOOST_TEST(initiator.echoes("u", "hello"));
    BOOST_TEST(monitor.status() == 0);
    const std::string process = "[" + std::to_string(::getpid()) + "]";
    BOOST_TEST(std::ranges::count(monitor.output(), '\n') == 2);
    BOOST_TEST(monitor.output().find(process + " -> broker  test/echo  token ") !=
               std::string::npos);
    BOOST_TEST(monitor.output().find("broker -> 0" + process + "  test/echo  token ") !=
               std::string::npos);
    BOOST_TEST(monitor.output().find("  46 B (payload 5)\n") != std::string::npos);
    BOOST_TEST(monitor.output().find("  46 B (payload 5)  after ") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(printsJsonOfBothPeers) {
    Responder responder(address, "echo service");
    Initiator initiator(address);
    MonitorProcess monitor(address, {"--json", "--count", "2", "--payload", "3"});
    initiator.send("echo service", "name", "u", "p\"\n\xff");
    responder.answer(responder.receive(), "answer");
    const std::vector<Json> lines = monitor.jsonLines();
    BOOST_REQUIRE(lines.size() == 2U);
    BOOST_TEST(lines[0].at("type") == "request");
    BOOST_TEST(lines[1].at("type") == "response");
    BOOST_TEST(lines[0].at("from") == lines[1].at("to"));
    BOOST_TEST(lines[0].at("to") == lines[1].at("from"));
    BOOST_TEST(lines[0].at("from").at("process") == ::getpid());
    BOOST_TEST(lines[0].at("from").at("user") == ::geteuid());
    BOOST_TEST(lines[0].at("token") == lines[1].at("token"));
    BOOST_TEST(lines[0].at("category") == "echo service");
    BOOST_TEST(lines[0].at("identifier") == "name");
    BOOST_TEST(lines[0].at("payload") == "p\"\n");
    BOOST_TEST(lines[0].at("payload_bytes") == 4);
    BOOST_TEST(lines[1].at("payload") == "ans");
    BOOST_TEST(lines[1].at("elapsed_us") > 0);
}

BOOST_AUTO_TEST_CASE(showsOnlyWhatIsAskedFor) {
    Responder other(address, "other");
    Initiator initiator(address);
    MonitorProcess ofCategory(address, {"--json", "--count", "1", "--category", "other"});
    MonitorProcess ofAProcess(
        address, {"--json", "--count", "3", "--process", std::to_string(::getpid()), "--user",
                  std::to_string(::geteuid())});
    MonitorProcess ofAConnection(address, {"--json", "--count", "1", "--connection", "0"});
    BOOST_TEST(initiator.echoes());
    other.publish("other", "news", "");
    BOOST_TEST(ofCategory.jsonLines()[0].at("identifier") == "news");
    BOOST_TEST(ofAProcess.jsonLines()[2].at("identifier") == "news");
    BOOST_TEST(ofAConnection.jsonLines()[0].at("identifier") == "news");
}

BOOST_AUTO_TEST_CASE(endsWhenTheTimeIsOver) {
    const Ended quiet = monitor(address, {"--timeout", "0.05"});
    BOOST_TEST(quiet.status == 0);
    BOOST_TEST(quiet.output == "");
    BOOST_TEST(monitor(address, {"--timeout", "0.05", "--count", "1"}).status == 2);
}

BOOST_AUTO_TEST_CASE(isInterruptedWithASummary) {
    Initiator initiator(address);
    MonitorProcess monitor(address, {"--category", "test"});
    BOOST_TEST(initiator.echoes());
    BOOST_REQUIRE(monitor.waitForOutput("response", patience));
    monitor.signal(SIGINT);
    BOOST_TEST(monitor.status() == 0);
    BOOST_TEST(monitor.error().find("2 seen, 0 lost\n") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(goesOnWithTheNextBroker) {
    MonitorProcess monitor(address, {"--json", "--category", "test"});
    broker.restart();
    BOOST_REQUIRE(monitor.waitForError("connected again", patience));
    BOOST_TEST(monitor.error().find("; waiting for the next one\n") != std::string::npos);
    Initiator initiator(address);
    BOOST_TEST(initiator.echoes());
    BOOST_REQUIRE(monitor.waitForOutput("\"response\"", patience));
    monitor.signal(SIGTERM);
    const std::vector<Json> lines = monitor.jsonLines();
    BOOST_REQUIRE(lines.size() == 4U);
    BOOST_TEST(lines[0].at("broker") == "lost");
    BOOST_TEST(lines[1].at("broker") == "connected");
    BOOST_TEST(lines[2].at("type") == "request");
}

BOOST_AUTO_TEST_CASE(endsWithItsReader) {
    kavri::process::ChildProcess shell(
        {.program = "/bin/sh",
         .arguments = {"-c", "\"$0\" monitor --socket \"$1\" | head -n 1", KAVRI_BIN_DIR "/kavri",
                       address}});
    BOOST_REQUIRE(shell.waitForError("shows what passes", patience));
    const Initiator initiator(address);
    const auto exit = shell.wait(patience);
    BOOST_REQUIRE(exit);
    BOOST_TEST(exit->succeeded());
    BOOST_TEST(shell.output().find("hello") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(saysWhyThereIsNothingToMonitor) {
    refuses(monitor(folder / "nobody.sock", {}), 3, "nobody.sock");
}

BOOST_AUTO_TEST_CASE(wrongUsageIsSaidInOneLine) {
    refuses(monitor(address, {"--proces", "3"}), 64, "did you mean '--process'?");
    refuses(monitor(address, {"--process", "x"}), 64, "--process");
    refuses(monitor(address, {"--user", "no such user"}), 64, "no such user");
    refuses(monitor(address, {"--payload", "4097"}), 64, "--payload");
    refuses(monitor(address, {"--count", "0"}), 64, "--count");
}

BOOST_AUTO_TEST_SUITE_END()
