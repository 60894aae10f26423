// The broker under a service manager: on a socket that it is passed, and watched for hanging.
#define BOOST_TEST_MODULE serviceManager

#include <fcntl.h>
#include <sys/ioctl.h>

#include <boost/test/unit_test.hpp>

#include "process/temporary_folder.h"
#include "support/notify_socket.h"
#include "support/passed_socket.h"
#include "support/raw_peer.h"
#include "support/service_process.h"

using namespace kavri::tests;
using kavri::process::ChildProcess;
namespace fs = std::filesystem;

namespace {

struct Setting {
    kavri::process::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
};

struct Passed : Setting {
    PassedSocket socket{address, 0640};
    ino_t inode = status().st_ino;

    struct stat status() const {
        struct stat status {};
        BOOST_TEST(::stat(address.c_str(), &status) == 0);
        return status;
    }
    void expectUnchanged() const {
        BOOST_TEST(status().st_ino == inode);
        BOOST_TEST((status().st_mode & 0777U) == 0640U);
        BOOST_TEST(!fs::exists(address + ".lock"));
    }
};

// Why the broker does not start.
std::string refusal(const kavri::process::ChildSpawn& spawn) {
    ChildProcess process(spawn);
    const auto exit = process.wait(patience);
    BOOST_TEST((exit && exit->code == 1));
    return process.error();
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(passedSocket, Passed)

BOOST_AUTO_TEST_CASE(whoConnectedBeforeItStartedIsServed) {
    RawPeer early(address);
    early.send(helloFrame("initiator"));
    ServiceProcess broker(socket.passTo(BrokerProcess::spawn(address)));
    BOOST_TEST(broker.logs("ready on " + address));
    BOOST_CHECK_NO_THROW(early.expect(FrameType::welcome));
    BOOST_CHECK_NO_THROW(RawPeer(address, "initiator").ping());
}

BOOST_AUTO_TEST_CASE(whoConnectsBetweenTwoBrokersIsServed) {
    const auto spawn = socket.passTo(BrokerProcess::spawn(address));
    BOOST_TEST(ServiceProcess(spawn).stop());
    RawPeer between(address);
    between.send(helloFrame("initiator"));
    ServiceProcess second(spawn);
    BOOST_CHECK_NO_THROW(between.expect(FrameType::welcome));
}

BOOST_AUTO_TEST_CASE(itsFileIsNeitherLockedNorChangedNorRemoved) {
    ServiceProcess broker(
        socket.passTo(BrokerProcess::spawn(address, {.config = "[access]\nconnect = [\"*\"]\n"})));
    expectUnchanged();
    writeConfig(address, "# none\n");
    broker.signal(SIGHUP);
    BOOST_TEST(broker.logs("reloaded"));
    expectUnchanged();
    BOOST_TEST(broker.stop());
    expectUnchanged();
}

BOOST_AUTO_TEST_CASE(itTakesThePlaceOfTheOption) {
    const std::string other = folder / "other.sock";
    ServiceProcess broker(socket.passTo(BrokerProcess::spawn(other)));
    BOOST_CHECK_NO_THROW(RawPeer(address, "initiator").ping());
    BOOST_TEST(!fs::exists(other));
}

BOOST_AUTO_TEST_CASE(aBrokerThatIsPassedNoneLeavesItAlone) {
    BOOST_TEST(refusal(BrokerProcess::spawn(address)).find("another program listens on") !=
               std::string::npos);
    expectUnchanged();
}

BOOST_AUTO_TEST_CASE(severalAreRefused) {
    BOOST_TEST(refusal(socket.passTo(BrokerProcess::spawn(address), 2)) ==
               "kavri-broker: 2 sockets were passed: pass one, a broker listens on one\n");
}

BOOST_AUTO_TEST_CASE(whatDoesNotListenIsRefused) {
    const PassedSocket datagrams(folder / "datagrams", 0600, SOCK_DGRAM);
    BOOST_TEST(refusal(datagrams.passTo(BrokerProcess::spawn(address)))
                   .ends_with("is no listening Unix stream socket with a path\n"));
}

BOOST_AUTO_TEST_SUITE_END()

namespace {

struct Watched : Setting {
    static constexpr std::chrono::milliseconds limit{200};
    NotifySocket manager{folder / "notify"};
    std::map<std::string, std::optional<std::string>> environment = {
        {"NOTIFY_SOCKET", folder / "notify"},
        {"WATCHDOG_USEC", std::to_string(std::chrono::microseconds(limit).count())}};

    void expectBeats(int count) const {
        for (int i = 0; i < count; ++i) {
            BOOST_TEST(manager.next() == "WATCHDOG=1");
        }
    }
};

// A file that the test service's record is written to, and the loop waits for.
struct FullPipe {
    explicit FullPipe(const std::string& path) {
        BOOST_REQUIRE(::mkfifo(path.c_str(), 0600) == 0);
        end = kavri::base::Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        BOOST_REQUIRE(::fcntl(end.get(), F_SETPIPE_SZ, capacity) == capacity);
    }
    std::string readAll() const {
        std::string bytes(capacity, '\0');
        const ssize_t count = ::read(end.get(), bytes.data(), bytes.size());
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    static constexpr int capacity = 4096;
    kavri::base::Descriptor end;
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(watchdog, Watched)

BOOST_AUTO_TEST_CASE(anIdleLoopShowsThatItLives) {
    BrokerProcess broker(address, {.environment = environment});
    BOOST_TEST(manager.next() == "READY=1");
    expectBeats(3);
    BOOST_TEST(broker.stop());
}

BOOST_AUTO_TEST_CASE(aBusyLoopDoesToo) {
    BrokerProcess broker(address, {.testService = true, .environment = environment});
    BOOST_TEST(manager.next() == "READY=1");
    std::jthread load([this](const std::stop_token& stop) {
        RawPeer peer(address, "initiator");
        for (std::uint64_t token = 1; !stop.stop_requested(); ++token) {
            peer.ping(token);
        }
    });
    expectBeats(3);
}

// Nothing but the loop hangs: it waits for the reader of the record.
BOOST_AUTO_TEST_CASE(aLoopThatHangsDoesNot) {
    const FullPipe record(folder / "record");
    auto spawn = BrokerProcess::spawn(address, {.testService = true, .environment = environment});
    spawn.arguments.insert(spawn.arguments.end(), {"--service-record", folder / "record"});
    ServiceProcess broker(spawn);
    BOOST_TEST(manager.next() == "READY=1");
    expectBeats(1);
    RawPeer peer(address, "initiator");
    constexpr int requests = 40;
    constexpr int longestLine = 1000;
    for (int i = 0; i < requests; ++i) {
        peer.send(makeFrame(FrameType::request, static_cast<std::uint64_t>(i) + 1,
                            {"test", "echo", "0", std::string(150, 'x')}));
    }
    const auto isHanging = [&] {
        int bytes = 0;
        ::ioctl(record.end.get(), FIONREAD, &bytes);
        return bytes > FullPipe::capacity - longestLine && broker.sleeps();
    };
    BOOST_TEST(eventually(isHanging));
    manager.discard();
    // Longer than a service manager would wait for the next.
    BOOST_TEST(manager.next(2 * limit).empty());
    std::string lines;
    BOOST_TEST(eventually([&] {
        lines += record.readAll();
        return std::count(lines.begin(), lines.end(), '\n') == requests;
    }));
    expectBeats(2);
}

BOOST_AUTO_TEST_CASE(whereNobodyWatchesThereIsNoSign) {
    environment.erase("WATCHDOG_USEC");
    BrokerProcess broker(address, {.environment = environment});
    BOOST_TEST(manager.next() == "READY=1");
    BOOST_TEST(broker.stop());
    BOOST_TEST(manager.next() == "STOPPING=1");
}

BOOST_AUTO_TEST_SUITE_END()
