// `kavri serve`: what a command makes of requests, and what becomes of those that it does not
// answer.
#define BOOST_TEST_MODULE serveCommand
#include <signal.h>

#include <boost/test/unit_test.hpp>

#include "support/notify_socket.h"
#include "support/tool.h"
#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

struct WithTool : WithBroker {
    WithTool() : WithBroker({.config = "[limits]\npayload_bytes = 300000\n"}) {}
    Tool tool{address};

    // Serves "demo" on return.
    ServiceProcess serve(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"serve", "demo"});
        return ServiceProcess(tool.spawn(std::move(arguments)));
    }
    Result request(const std::string& payload, const std::string& command = "do") const {
        return tool.runWith(payload, {"request", "demo", command, "-"});
    }
    // The request is ended without an answer, and the service says why.
    void leavesUnanswered(ServiceProcess& service, const std::string& payload,
                          const std::string& reason) const {
        refuses(request(payload), 1, "without an answer");
        BOOST_TEST(service.logs("kavri serve: no answer to \"do\" "));
        BOOST_TEST(service.logs(reason), service.log());
    }
};

// Whether the process that wrote its number into the file is gone.
bool isGone(const std::filesystem::path& file) {
    const pid_t pid = std::stoi(contentOf(file));
    return eventually([pid] { return kill(pid, 0) != 0; });
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(answers, WithTool)

BOOST_AUTO_TEST_CASE(whatTheCommandWritesIsTheAnswer) {
    ServiceProcess service = serve({"--exec", "tr a-z A-Z"});
    succeeds(request("hello\n"), "HELLO\n");
    succeeds(request(""), "");
    const std::string large(300'000, 'X');
    succeeds(request(std::string(300'000, 'x')), large);
    BOOST_TEST(service.log() == "kavri serve: ready, serving \"demo\"\n");
    BOOST_TEST(service.stop());
}

BOOST_AUTO_TEST_CASE(theCommandKnowsTheRequest) {
    const ServiceProcess service =
        serve({"--exec",
               "printf '%s %s %s %s' $KAVRI_CATEGORY $KAVRI_COMMAND $KAVRI_UUID $KAVRI_BROKER"});
    Initiator initiator(address);
    initiator.send("demo", "get", "the-uuid", "");
    BOOST_TEST(initiator.receive().text() == "demo get the-uuid demo get the-uuid " + address);
}

BOOST_AUTO_TEST_CASE(aFixedTextIsTheAnswer) {
    const ServiceProcess service = serve({"--answer", "not yet"});
    succeeds(request("hello"), "not yet");
}

BOOST_AUTO_TEST_CASE(theFixedTextMayBeEmpty) {
    const ServiceProcess service = serve({"--answer", ""});
    succeeds(request("hello"), "");
}

BOOST_AUTO_TEST_CASE(withoutEitherTheRequestIsTheAnswer) {
    const ServiceProcess service = serve({});
    succeeds(request("hello"), "hello");
    const Result many = tool.run({"request", "demo", "x", "--count", "2000", "--rate", "100000"});
    BOOST_TEST(many.exit.code == 0, many.output);
}

BOOST_AUTO_TEST_CASE(aCommandNeedNotReadItsInput) {
    const ServiceProcess service = serve({"--exec", "echo done"});
    succeeds(request(std::string(300'000, 'x')), "done\n");
}

BOOST_AUTO_TEST_CASE(commandsRunAtATime) {
    const std::string place = folder / "started.";
    // Each waits for the other one.
    const ServiceProcess service = serve({"--jobs", "2", "--exec",
                                          "touch " + place + "$KAVRI_UUID; until [ -e " + place +
                                              "$KAVRI_COMMAND ]; do sleep 0.01; done"});
    Initiator initiator(address);
    initiator.send("demo", "right", "left", "");
    initiator.send("demo", "left", "right", "");
    BOOST_TEST(initiator.receive().status == good);
    BOOST_TEST(initiator.receive().status == good);
}

BOOST_AUTO_TEST_CASE(noMoreRunThanAreAllowed) {
    const std::string running = folder / "running";
    std::filesystem::create_directory(running);
    const ServiceProcess service =
        serve({"--jobs", "2", "--exec",
               "cd " + running + "; touch $KAVRI_UUID; ls | wc -l; rm $KAVRI_UUID"});
    Initiator initiator(address);
    for (const std::string& uuid : numbers(30)) {
        initiator.send("demo", "do", uuid, "");
    }
    for (int i = 0; i < 30; ++i) {
        const Message answer = initiator.receive();
        BOOST_TEST_REQUIRE(answer.status == good);
        BOOST_TEST(std::stoi(*answer.payload) <= 2);
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(failures, WithTool)

BOOST_AUTO_TEST_CASE(aCommandThatFails) {
    ServiceProcess service = serve({"--exec", "echo partly; exit 3"});
    leavesUnanswered(service, "x", "the command ended with status 3");
}

BOOST_AUTO_TEST_CASE(aCommandThatCrashes) {
    ServiceProcess service = serve({"--exec", "kill -SEGV $$"});
    leavesUnanswered(service, "x", "the command was ended by SIGSEGV");
}

BOOST_AUTO_TEST_CASE(aCommandThatIsNotThere) {
    ServiceProcess service = serve({"--exec", "no-such-command"});
    leavesUnanswered(service, "x", "the command ended with status 127");
}

BOOST_AUTO_TEST_CASE(aCommandThatTakesTooLong) {
    const std::string file = folder / "pid";
    ServiceProcess service =
        serve({"--timeout", "0.5", "--exec", "echo $$ > " + file + "; sleep 1000 & sleep 1000"});
    leavesUnanswered(service, "x", "the command did not end within 0.5 s");
    BOOST_TEST(isGone(file));
}

BOOST_AUTO_TEST_CASE(aCommandThatNeverReadsItsInput) {
    ServiceProcess service = serve({"--timeout", "0.5", "--exec", "exec sleep 1000"});
    leavesUnanswered(service, std::string(300'000, 'x'), "the command did not end within 0.5 s");
}

BOOST_AUTO_TEST_CASE(aCommandThatWritesMoreThanTheBrokerAllows) {
    ServiceProcess service = serve({"--exec", "head -c 300001 /dev/zero | tr '\\0' x"});
    leavesUnanswered(service, "x", "the answer of 300001 bytes could not be sent: message too");
}

BOOST_AUTO_TEST_CASE(aCommandThatWritesWithoutEnd) {
    ServiceProcess service = serve({"--exec", "exec yes"});
    leavesUnanswered(service, "x", "more than any broker allows");
}

BOOST_AUTO_TEST_CASE(aCommandThatWritesWhatNoPayloadHolds) {
    ServiceProcess service = serve({"--exec", "printf 'a\\0b'"});
    leavesUnanswered(service, "x", "wrote a NUL");
}

BOOST_AUTO_TEST_CASE(afterAllOfThatItServes) {
    ServiceProcess service = serve({"--exec", "read line; exit $line"});
    for (int i = 0; i < 3; ++i) {
        refuses(request("1\n"), 1, "without an answer");
        succeeds(request("0\n"), "");
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(life, WithTool)

BOOST_AUTO_TEST_CASE(aSignalStopsItWithItsCommands) {
    for (const int number : {SIGTERM, SIGINT}) {
        const std::string file = folder / "pid";
        std::filesystem::remove(file);
        ServiceProcess service =
            serve({"--exec", "echo $$ > " + file + "; sleep 1000 & sleep 1000"});
        auto running = tool.start({"request", "demo", "x"});
        BOOST_TEST_REQUIRE(eventually([&file] { return contentOf(file).ends_with('\n'); }));
        service.signal(number);
        const auto exit = service.waitForEnd();
        BOOST_REQUIRE(exit);
        BOOST_TEST(exit->succeeded());
        BOOST_TEST(isGone(file));
        refuses(finish(running), 4, "responder lost");
    }
}

BOOST_AUTO_TEST_CASE(servesAgainAfterTheBrokersRestart) {
    ServiceProcess service = serve({"--exec", "cat"});
    broker.restart();
    BOOST_TEST(service.logs("kavri serve: connected again after "));
    succeeds(request("hello"), "hello");
}

BOOST_AUTO_TEST_CASE(aBrokersRestartMeanwhileCostsTheAnswerAlone) {
    const std::string started = folder / "started";
    const std::string go = folder / "go";
    ServiceProcess service = serve(
        {"--exec", "touch " + started + "; until [ -e " + go + " ]; do sleep 0.01; done; cat"});
    auto running = tool.start({"request", "demo", "do", "lost"});
    BOOST_TEST_REQUIRE(eventually([&] { return std::filesystem::exists(started); }));
    broker.restart();
    BOOST_TEST(service.logs("connected again"));
    refuses(finish(running), 4, "connection lost");
    std::ofstream(go).flush();
    BOOST_TEST(service.logs("could not be sent: connection lost"));
    succeeds(request("hello"), "hello");
}

BOOST_AUTO_TEST_CASE(saysToTheServiceManagerWhenItIsReady) {
    const NotifySocket manager(folder / "notify");
    kavri::process::ChildSpawn spawn = tool.spawn({"serve", "demo"});
    spawn.environment["NOTIFY_SOCKET"] = folder / "notify";
    ServiceProcess service(spawn);
    BOOST_TEST(manager.next() == "READY=1");
    BOOST_TEST(service.stop());
    BOOST_TEST(manager.next() == "STOPPING=1");
}

BOOST_AUTO_TEST_CASE(whatCannotBeServedIsSaidInOneLine) {
    const Responder other(address, "demo");
    refuses(tool.run({"serve", "demo"}), 3, "another program serves the category");
    broker.kill();
    refuses(tool.run({"serve", "demo"}), 3, "broker unavailable: start kavri-broker");
}

BOOST_AUTO_TEST_CASE(wrongUsageIsSaidInOneLine) {
    refuses(tool.run({"serve"}), 64, "CATEGORY");
    refuses(tool.run({"serve", "demo", "--exec", "cat", "--answer", "x"}), 64, "--answer");
    refuses(tool.run({"serve", "demo", "--exec", ""}), 64, "empty");
    refuses(tool.run({"serve", "demo", "--jobs", "0"}), 64, "--jobs");
    refuses(tool.run({"serve", "demo", "--exce", "cat"}), 64, "did you mean '--exec'?");
}

BOOST_AUTO_TEST_SUITE_END()
