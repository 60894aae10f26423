// What keeps the broker and the test service from starting: each gets one line
// on standard error that says what and what to do, and an exit status.
#define BOOST_TEST_MODULE startUp

#include <sys/stat.h>

#include <boost/test/unit_test.hpp>

#include "process/temporary_folder.h"
#include "support/client.h"
#include "support/fake_broker.h"
#include "support/service_process.h"

using namespace kavri::tests;
using kavri::process::ChildProcess;
using kavri::process::ChildSpawn;

namespace {

constexpr int cannotStart = 1;
constexpr int badUsage = 64;

struct Setting {
    kavri::process::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
    Library library;

    // That the program ends with this status, and a line with these texts.
    void expectFailure(const ChildSpawn& spawn, int status,
                       const std::vector<std::string>& texts) const {
        ChildProcess process(spawn);
        const auto exit = process.wait(patience);
        BOOST_REQUIRE(exit.has_value());
        BOOST_TEST(exit->signal == 0);
        BOOST_TEST(exit->code == status);
        const std::string line = process.error();
        BOOST_TEST(std::count(line.begin(), line.end(), '\n') == 1, "not one line: " << line);
        BOOST_TEST(line.starts_with(spawn.program.filename().string() + ": "), line);
        for (const std::string& text : texts) {
            BOOST_TEST(line.find(text) != std::string::npos, line << " has no " << text);
        }
        BOOST_TEST(process.output().empty());
    }
    void expectBrokerFails(const std::vector<std::string>& texts) const {
        expectFailure(BrokerProcess::spawn(address), cannotStart, texts);
    }
    void expectConfigFails(const std::string& config, const std::vector<std::string>& texts) const {
        expectFailure(BrokerProcess::spawn(address, {.config = config}), cannotStart, texts);
        BOOST_TEST(!std::filesystem::exists(address));
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(socketFile, Setting)

BOOST_AUTO_TEST_CASE(aPathThatIsTooLongIsRefused) {
    address = folder / std::string(108, 'x');
    expectBrokerFails({"the socket path has", "the most is 107", "choose a shorter one"});
}

BOOST_AUTO_TEST_CASE(theLongestPathIsServed) {
    address = folder.path().string() + "/";
    address += std::string(107 - address.size(), 'x');
    BrokerProcess broker(address, {.testService = true});
    BOOST_TEST(Initiator(address).echoes());
    BOOST_TEST(broker.stop());
    BOOST_TEST(std::filesystem::is_empty(folder.path()));
}

BOOST_AUTO_TEST_CASE(aFolderThatIsMissingIsNamed) {
    address = folder / "missing" / "broker.sock";
    expectBrokerFails({folder / "missing", "does not exist", "create it"});
}

BOOST_AUTO_TEST_CASE(aFolderThatCannotBeWrittenIsNamed) {
    // Where not even the superuser may make files.
    address = "/proc/broker.sock";
    expectBrokerFails({"/proc/broker.sock", "writable"});
}

BOOST_AUTO_TEST_CASE(theSocketOfAKilledBrokerIsTakenOver) {
    BrokerProcess broker(address, {.testService = true});
    broker.kill();
    BOOST_TEST(std::filesystem::is_socket(address));
    broker.restart();
    BOOST_TEST(Initiator(address).echoes());
    BOOST_TEST(broker.stop());
    BOOST_TEST(std::filesystem::is_empty(folder.path()));
}

BOOST_AUTO_TEST_CASE(theSocketOfALivingBrokerIsLeftAlone) {
    BrokerProcess broker(address, {.testService = true});
    expectBrokerFails({"a broker is running on " + address, "choose another --socket"});
    broker.freeze();  // alive, though it does not answer
    expectBrokerFails({"a broker is running on " + address});
    broker.thaw();
    BOOST_TEST(Initiator(address).echoes());
}

BOOST_AUTO_TEST_CASE(theSocketOfAnotherProgramIsLeftAlone) {
    FakeBroker other(address);
    expectBrokerFails({"another program listens on " + address});
    RawPeer peer(address);
    BOOST_CHECK_NO_THROW(other.accept());
}

BOOST_AUTO_TEST_CASE(aFileInTheWayIsLeftAlone) {
    std::ofstream(address) << "precious";
    expectBrokerFails({address, "is no socket", "choose another --socket"});
    std::string content;
    std::ifstream(address) >> content;
    BOOST_TEST(content == "precious");
    BOOST_TEST(!std::filesystem::exists(address + ".lock"));
}

BOOST_AUTO_TEST_CASE(aFolderInTheWayIsLeftAlone) {
    std::filesystem::create_directory(address);
    expectBrokerFails({address, "is no socket"});
    BOOST_TEST(std::filesystem::is_directory(address));
}

BOOST_AUTO_TEST_CASE(onlyItsOwnUserMayReachTheSocketUnlessOthersMayConnect) {
    const auto mode = [this] {
        struct stat status {};
        BOOST_TEST(stat(address.c_str(), &status) == 0);
        return status.st_mode & 0777U;
    };
    BrokerProcess closed(address);
    BOOST_TEST(mode() == 0600U);
    BOOST_TEST(closed.stop());
    BrokerProcess open(address, {.config = "[access]\nconnect = [\"*\"]"});
    BOOST_TEST(mode() == 0666U);
}

BOOST_AUTO_TEST_CASE(twoBrokersServeTwoSockets) {
    const std::string other = folder / "other.sock";
    BrokerProcess one(address, {.testService = true});
    BrokerProcess two(other);
    Initiator there(other);
    there.echo("0");
    BOOST_TEST(there.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
}

BOOST_AUTO_TEST_CASE(theEnvironmentNamesTheSocket) {
    ChildProcess broker(
        {.program = KAVRI_BIN_DIR "/kavri-broker", .environment = {{"KAVRI_BROKER", address}}});
    BOOST_TEST(broker.waitForError("ready on " + address, patience));
    ChildProcess service({.program = KAVRI_BIN_DIR "/kavri-test-service",
                          .environment = {{"KAVRI_BROKER", address}}});
    BOOST_TEST(service.waitForError("ready", patience));
    BOOST_TEST(Initiator(address).echoes());
}

BOOST_AUTO_TEST_CASE(eitherSignalStopsIt) {
    for (const int signal : {SIGTERM, SIGINT}) {
        for (const ChildSpawn& spawn :
             {BrokerProcess::spawn(folder / "other.sock"), TestServiceProcess::spawn(address)}) {
            BrokerProcess broker(address);
            ChildProcess process(spawn);
            BOOST_TEST(process.waitForError("ready", patience));
            process.signal(signal);
            const auto exit = process.wait(patience);
            BOOST_TEST((exit && exit->succeeded()));
        }
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(usage, Setting)

BOOST_AUTO_TEST_CASE(anUnknownOptionIsNamed) {
    for (const char* program : {"kavri-broker", "kavri-test-service"}) {
        expectFailure({.program = std::string(KAVRI_BIN_DIR "/") + program,
                       .arguments = {"--socket", address, "--bogus"}},
                      badUsage, {"--bogus", "--help"});
        expectFailure(
            {.program = std::string(KAVRI_BIN_DIR "/") + program, .arguments = {"--sokcet", "x"}},
            badUsage, {"did you mean '--socket'?"});
        expectFailure(
            {.program = std::string(KAVRI_BIN_DIR "/") + program, .arguments = {"--socket", ""}},
            badUsage, {"--socket", "empty"});
    }
}

BOOST_AUTO_TEST_CASE(anOptionWithoutItsValueIsNamed) {
    for (const char* program : {"kavri-broker", "kavri-test-service"}) {
        expectFailure(
            {.program = std::string(KAVRI_BIN_DIR "/") + program, .arguments = {"--socket"}},
            badUsage, {"--socket", "--help"});
    }
}

BOOST_AUTO_TEST_CASE(helpAndVersionGoToStandardOutput) {
    for (const char* program : {"kavri-broker", "kavri-test-service"}) {
        for (const char* option : {"--help", "--version"}) {
            ChildProcess process(
                {.program = std::string(KAVRI_BIN_DIR "/") + program, .arguments = {option}});
            const auto exit = process.wait(patience);
            BOOST_TEST((exit && exit->succeeded()));
            BOOST_TEST(!process.output().empty());
            BOOST_TEST(process.error().empty());
        }
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(configuration, Setting)

BOOST_AUTO_TEST_CASE(whatIsWrongIsNamedWithFileAndLine) {
    const std::string file = address + ".toml";
    expectConfigFails("[limits]\npayload_bytes = 0", {file + ":2", "payload_bytes", "1 to"});
    expectConfigFails("[limits]\n\npayload_bytes = \"many\"", {file + ":3", "whole number"});
    expectConfigFails("[limits]\nbogus = 1", {file + ":2", "bogus", "payload_bytes"});
    expectConfigFails("[bogus]\n", {file + ":1", "bogus", "limits, access and link"});
    expectConfigFails("limits = 1", {file + ":1", "[limits]"});
    expectConfigFails("[limits]\nthis is no TOML", {file + ":2"});
    expectConfigFails("[access]\nconnect = [\"nobody of this name\"]",
                      {file + ":2", "nobody of this name"});
    expectConfigFails("[access]\nconnect = \"*\"", {file + ":2", "list of users"});
    expectConfigFails("[access]\nbogus = []", {file + ":2", "bogus"});
    expectConfigFails("[access.category.\"test\"]\nbogus = []", {file + ":2", "bogus"});
}

BOOST_AUTO_TEST_CASE(aFileThatIsMissingIsNamed) {
    const std::string missing = folder / "missing.toml";
    expectFailure({.program = KAVRI_BIN_DIR "/kavri-broker",
                   .arguments = {"--socket", address, "--config", missing}},
                  cannotStart, {missing});
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(testService, Setting)

BOOST_AUTO_TEST_CASE(withoutABrokerItSaysSo) {
    expectFailure(TestServiceProcess::spawn(address), cannotStart,
                  {"broker unavailable", "start kavri-broker", "--socket"});
}

BOOST_AUTO_TEST_CASE(whereTheBrokerIsGoneItSaysSo) {
    BrokerProcess broker(address);
    broker.kill();
    expectFailure(TestServiceProcess::spawn(address), cannotStart,
                  {"broker unavailable", "start kavri-broker"});
}

BOOST_AUTO_TEST_CASE(aCategoryThatIsTakenIsNamed) {
    BrokerProcess broker(address, {.testService = true});
    expectFailure(TestServiceProcess::spawn(address), cannotStart,
                  {"\"test\"", "already served", "--test-service"});
}

BOOST_AUTO_TEST_CASE(aPathThatIsTooLongIsRefused) {
    expectFailure(TestServiceProcess::spawn(folder / std::string(108, 'x')), cannotStart,
                  {"107", "shorter"});
}

BOOST_AUTO_TEST_CASE(aCategoryThatItMayNotServeIsNamed) {
    BrokerProcess broker(address, {.config = "[access.category.\"test\"]\nserve = []"});
    expectFailure(TestServiceProcess::spawn(address), cannotStart, {"\"test\"", "refused"});
}

BOOST_AUTO_TEST_CASE(whatIsNoBrokerIsNamedSo) {
    FakeBroker other(address);
    auto played = std::async(std::launch::async, [&] {
        RawPeer peer = other.accept();
        peer.write("220 mail.example.org ESMTP ready, and what can I do for you\r\n");
        peer.expectEnd();
    });
    expectFailure(TestServiceProcess::spawn(address), cannotStart, {"version"});
    played.get();
}

BOOST_AUTO_TEST_SUITE_END()
