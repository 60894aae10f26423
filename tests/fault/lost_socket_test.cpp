// The broker's socket or its lock are removed, renamed or replaced while it runs.
#define BOOST_TEST_MODULE lostSocket

#include <boost/test/unit_test.hpp>

#include "process/temporary_folder.h"
#include "support/attack.h"
#include "support/service_process.h"

using namespace kavri::tests;
namespace fs = std::filesystem;

namespace {

struct Setting {
    kavri::process::TemporaryFolder folder;
    fs::path inner = folder / "inner";
    bool made = fs::create_directory(inner);
    fs::path address = inner / "broker.sock";
    fs::path lock = inner / "broker.sock.lock";
    BrokerProcess broker{address};
    Bystander bystander{address};

    bool isReachable() const {
        try {
            RawPeer(address, "initiator");
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }
    void expectOtherBrokerRefused() const {
        kavri::process::ChildProcess other(BrokerProcess::spawn(address));
        const auto exit = other.wait(patience);
        BOOST_TEST((exit && exit->code == 1));
        BOOST_TEST(other.error().find("a broker is running on") != std::string::npos);
    }
    // That it never had to make them again.
    void expectStopsWithItsFiles(BrokerProcess& other) const {
        BOOST_TEST(other.stop());
        BOOST_TEST(other.log().find("made again") == std::string::npos, other.log());
        BOOST_TEST(fs::is_empty(inner));
    }
    void expectEnds(const std::string& reason) {
        const auto exit = broker.waitForEnd();
        BOOST_REQUIRE(exit.has_value());
        BOOST_TEST(exit->signal == 0);
        BOOST_TEST(exit->code == 1);
        BOOST_TEST(broker.log().find(reason) != std::string::npos, broker.log());
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(lostSocket, Setting)

BOOST_AUTO_TEST_CASE(aSocketThatIsRemovedIsMadeAgain) {
    for (int i = 0; i < 3; ++i) {
        fs::remove(address);
        BOOST_TEST(eventually([this] { return isReachable(); }));
        bystander.ping();  // who was there goes on
    }
    BOOST_TEST(broker.stop());
    BOOST_TEST(fs::is_empty(inner));
}

BOOST_AUTO_TEST_CASE(aSocketThatIsRenamedIsMadeAgain) {
    fs::rename(address, inner / "elsewhere");
    BOOST_TEST(eventually([this] { return isReachable(); }));
    bystander.ping();
    BOOST_TEST(broker.stop());
    BOOST_TEST(!fs::exists(address));
}

BOOST_AUTO_TEST_CASE(aLockThatIsRemovedIsMadeAgain) {
    fs::remove(lock);
    BOOST_TEST(eventually([this] { return fs::exists(lock); }));
    BOOST_TEST(broker.logs("made again"));
    expectOtherBrokerRefused();
    bystander.ping();
    BOOST_TEST(broker.stop());
    BOOST_TEST(fs::is_empty(inner));
}

BOOST_AUTO_TEST_CASE(whoWaitedAtTheOldSocketIsAccepted) {
    broker.freeze();
    RawPeer waiting(address);
    waiting.send(helloFrame("initiator"));
    fs::remove(address);
    broker.thaw();
    BOOST_CHECK_NO_THROW(waiting.expect(FrameType::welcome));
    BOOST_TEST(eventually([this] { return isReachable(); }));
}

BOOST_AUTO_TEST_CASE(whatOthersDoInTheFolderWakesNobody) {
    BOOST_TEST(eventually([this] { return broker.sleeps(); }));
    const auto switches = [this] {
        std::ifstream status("/proc/" + std::to_string(broker.pid()) + "/status");
        std::string word;
        while (status >> word && word != "voluntary_ctxt_switches:") {
        }
        status >> word;
        return std::stoull(word);
    };
    bystander.ping();
    BOOST_TEST(eventually([this] { return broker.sleeps(); }));
    const auto before = switches();
    for (int i = 0; i < 100; ++i) {
        std::ofstream(inner / "other") << "x";
        fs::remove(inner / "other");
    }
    BOOST_TEST(broker.sleeps());
    // Memory that is kept for the next burst is given back once, after a while.
    BOOST_TEST(switches() - before <= 2U);
}

BOOST_AUTO_TEST_CASE(theFilesOfABrokerThatTookThePathAreLeftAlone) {
    broker.freeze();
    fs::remove(address);
    fs::remove(lock);
    BrokerProcess second(address);
    broker.thaw();
    expectEnds("the socket was removed or replaced: a broker is running on");
    Bystander(address).ping();
    expectOtherBrokerRefused();
    expectStopsWithItsFiles(second);
}

BOOST_AUTO_TEST_CASE(whoIsConnectedIsToldWhyItEnds) {
    RawPeer peer(address, "initiator");
    broker.freeze();
    fs::remove(address);
    fs::remove(lock);
    BrokerProcess second(address);
    broker.thaw();
    BOOST_TEST(peer.closing().starts_with(
        "status 6: the broker is stopping: the socket was removed or replaced"));
    expectEnds("removed or replaced");
}

BOOST_AUTO_TEST_CASE(itsEndRemovesNoFileOfAnother) {
    broker.freeze();
    fs::remove(address);
    fs::remove(lock);
    BrokerProcess second(address);
    broker.signal(SIGTERM);  // at once with the news about the files
    broker.thaw();
    BOOST_TEST(broker.waitForEnd().has_value());
    Bystander(address).ping();
    expectStopsWithItsFiles(second);
}

BOOST_AUTO_TEST_CASE(aFileInThePlaceOfTheSocketIsLeftAlone) {
    broker.freeze();
    fs::remove(address);
    std::ofstream(address) << "precious";
    broker.thaw();
    expectEnds("is no socket");
    BOOST_TEST(fs::file_size(address) == 8U);
}

BOOST_AUTO_TEST_CASE(aFolderThatIsRenamedEndsIt) {
    fs::rename(inner, folder / "renamed");
    expectEnds("the socket was removed or replaced: cannot create");
}

BOOST_AUTO_TEST_SUITE_END()
