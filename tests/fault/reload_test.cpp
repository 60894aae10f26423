// SIGHUP: the configuration is read again, and what is wrong changes nothing. And
// what the service manager is notified of.
#define BOOST_TEST_MODULE reload

#include <sys/stat.h>

#include <boost/test/unit_test.hpp>

#include "support/attack.h"
#include "support/notify_socket.h"
#include "support/other_user.h"
#include "support/with_broker.h"

using namespace kavri::tests;
using kavri::wire::Field;

namespace {

struct Setting : WithBroker {
    explicit Setting(const std::string& config = "# nothing yet\n")
        : WithBroker({.testService = true, .config = config}) {
        openFolder(folder.path());
    }

    Bystander bystander{address};

    void reload(const std::string& config, const std::string& logged = "reloaded \"") {
        writeConfig(address, config);
        broker.signal(SIGHUP);
        BOOST_TEST(broker.logs(logged));
        bystander.ping();
    }
    // Of the socket file.
    mode_t mode() const {
        struct stat status {};
        BOOST_TEST(::stat(address.c_str(), &status) == 0);
        return status.st_mode & 0777U;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(configuration, Setting)

BOOST_AUTO_TEST_CASE(aLimitAppliesToWhatIsDecidedFromThenOn) {
    RawPeer another(address, "initiator");
    reload("[limits]\nconnections_per_user = 2\n");
    RawPeer third(address);
    BOOST_TEST(third.expect(FrameType::goodbye).values.status == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_CHECK_NO_THROW(another.ping());  // one that is there stays
    reload("# as it was\n", "reloaded");
    BOOST_TEST(eventually([this] {
        RawPeer peer(address);
        peer.send(helloFrame("initiator"));
        return peer.receive().values.type == FrameType::welcome;
    }));
}

BOOST_AUTO_TEST_CASE(anErrorIsLoggedWithItsPlaceAndChangesNothing) {
    reload("[limits]\nconnections_per_user = 1\nbogus = 1\n",
           "the configuration stays as it was: " + address + ".toml:3: unknown limit");
    BOOST_CHECK_NO_THROW(RawPeer(address, "initiator"));
}

BOOST_AUTO_TEST_CASE(aFileThatIsGoneChangesNothing) {
    std::filesystem::remove(address + ".toml");
    broker.signal(SIGHUP);
    BOOST_TEST(broker.logs("the configuration stays as it was: "));
    bystander.ping();
}

BOOST_AUTO_TEST_CASE(theLongestPayloadStaysAsNegotiated) {
    reload("[limits]\npayload_bytes = 10\n", "payload_bytes stays 1048576");
    RawPeer peer(address);
    peer.send(helloFrame("initiator"));
    const RawFrame welcome = peer.expect(FrameType::welcome);
    BOOST_TEST(welcome.values[Field::payload].starts_with("payload_bytes=1048576\n"));
    peer.send(makeFrame(FrameType::request, 1, {"test", "echo", "0", std::string(1000, 'x')}));
    peer.expect(FrameType::response);
}

BOOST_AUTO_TEST_CASE(theWelcomeNamesTheLimitsOfToday) {
    reload("[limits]\nopen_requests_per_initiator = 77\n");
    RawPeer peer(address);
    peer.send(helloFrame("initiator"));
    const RawFrame welcome = peer.expect(FrameType::welcome);
    BOOST_TEST(welcome.values[Field::payload].find("open_requests=77\n") != std::string_view::npos);
}

BOOST_AUTO_TEST_CASE(theSocketIsOpenToOthersOnceSomeMayConnect) {
    BOOST_TEST(mode() == 0600U);
    reload("[access]\nconnect = [\"*\"]\n");
    BOOST_TEST(mode() == 0666U);
    BOOST_TEST(broker.log().find("made again") == std::string::npos);
}

BOOST_AUTO_TEST_CASE(whoMayNoLongerServeOrSubscribeIsClosed) {
    RawPeer responder = responderFor(address, "news");
    RawPeer subscriber = subscriberOf(address, "news");
    RawPeer other = subscriberOf(address, "other");
    reload("[access.category.\"news\"]\nserve = []\nsubscribe = []\n");
    BOOST_TEST(responder.closing() == "status 9: this user may no longer serve its category");
    BOOST_TEST(subscriber.closing() ==
               "status 9: this user may no longer subscribe to one of its categories");
    BOOST_CHECK_NO_THROW(other.ping());
}

BOOST_AUTO_TEST_CASE(aRightThatIsWidenedApplies) {
    reload("[access.category.\"news\"]\nserve = []\n");
    RawPeer peer(address, "responder");
    peer.send(makeFrame(FrameType::registration, 1, {.category = "news"}));
    BOOST_TEST(peer.expect(FrameType::acknowledgement).values.status ==
               KAVRI_CORE_STATUS_IPC_REFUSED);
    writeConfig(address, "# none\n");
    broker.signal(SIGHUP);
    BOOST_TEST(eventually([&] {
        peer.send(makeFrame(FrameType::registration, 2, {.category = "news"}));
        return peer.expect(FrameType::acknowledgement).values.status == good;
    }));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_CASE(whoMayNoLongerConnectIsClosed) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting("[access]\nconnect = [65534, 65533]\n");
    RawPeer loses = connectAs(nobody, setting.address);
    RawPeer keeps = connectAs(nobody - 1, setting.address);
    for (RawPeer* peer : {&loses, &keeps}) {
        peer->send(helloFrame("initiator"));
        peer->expect(FrameType::welcome);
    }
    setting.reload("[access]\nconnect = [65533]\n");
    BOOST_TEST(loses.closing() == "status 9: this user may no longer connect");
    BOOST_CHECK_NO_THROW(keeps.ping());
}

BOOST_AUTO_TEST_CASE(whoMayNoLongerManageIsClosed) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting("[access]\nconnect = [65534, 65533]\nmanage = [65534, 65533]\n");
    RawPeer loses = connectAs(nobody, setting.address);
    RawPeer keeps = connectAs(nobody - 1, setting.address);
    RawPeer other = connectAs(nobody, setting.address);
    loses.send(helloFrame("manager"));
    keeps.send(helloFrame("manager"));
    other.send(helloFrame("initiator"));
    for (RawPeer* peer : {&loses, &keeps, &other}) {
        peer->expect(FrameType::welcome);
    }
    setting.reload("[access]\nconnect = [65534, 65533]\nmanage = [65533]\n");
    BOOST_TEST(loses.closing() == "status 9: this user may no longer manage the broker");
    BOOST_CHECK_NO_THROW(keeps.ping());
    BOOST_CHECK_NO_THROW(other.ping());
}

BOOST_AUTO_TEST_CASE(withoutAFileThereIsNothingToReload) {
    WithBroker setting;
    RawPeer peer(setting.address, "initiator");
    setting.broker.signal(SIGHUP);
    BOOST_TEST(setting.broker.logs("nothing to reload: started without --config"));
    BOOST_CHECK_NO_THROW(peer.ping());
    BOOST_TEST(setting.broker.stop());
    BOOST_TEST(std::filesystem::is_empty(setting.folder.path()));
}

BOOST_AUTO_TEST_CASE(theServiceManagerIsNotified) {
    kavri::process::TemporaryFolder folder;
    const NotifySocket manager(folder / "notify");
    BrokerProcess broker(folder / "broker.sock",
                         {.environment = {{"NOTIFY_SOCKET", folder / "notify"}}});
    BOOST_TEST(manager.next() == "READY=1");
    broker.signal(SIGHUP);
    const std::string reloading = manager.next();
    const std::string before = "RELOADING=1\nMONOTONIC_USEC=";
    BOOST_REQUIRE(reloading.starts_with(before));
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const long long us = std::stoll(reloading.substr(before.size()));
    BOOST_TEST(us <= now.tv_sec * 1'000'000LL + now.tv_nsec / 1000);
    BOOST_TEST(us > (now.tv_sec - patience.count()) * 1'000'000LL);
    BOOST_TEST(manager.next() == "READY=1");
    BOOST_TEST(broker.stop());
    BOOST_TEST(manager.next() == "STOPPING=1");
}
