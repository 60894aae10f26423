// What a user who is not the broker's own may do, as the kernel names him.
#define BOOST_TEST_MODULE otherUser

#include "support/other_user.h"

#include <boost/test/unit_test.hpp>

#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

struct Setting : WithBroker {
    explicit Setting(const std::string& config)
        : WithBroker({.testService = true, .config = config}) {
        openFolder(folder.path());
    }

    RawPeer welcomed(const std::string& role) const {
        RawPeer peer = connectAs(nobody, address);
        peer.send(helloFrame(role));
        peer.expect(FrameType::welcome);
        return peer;
    }
};

kavri_core_status answerTo(RawPeer& peer, const Frame& frame) {
    peer.send(frame);
    return static_cast<kavri_core_status>(peer.receive().values.status);
}

}  // namespace

BOOST_AUTO_TEST_CASE(byDefaultTheSocketIsClosedToOthers) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting("# nothing\n");
    BOOST_CHECK_THROW(connectAs(nobody, setting.address), std::system_error);
}

BOOST_AUTO_TEST_CASE(oneWhoMayNotConnectIsToldSo) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting("[access]\nconnect = [1]\n");
    RawPeer peer = connectAs(nobody, setting.address);
    BOOST_TEST(peer.closing() == "status 9: this user may not connect");
    BOOST_TEST(setting.broker.logs("of user 65534: this user may not connect"));
}

BOOST_AUTO_TEST_CASE(eachRightOfACategoryIsRefusedByItself) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting(
        "[access]\nconnect = [65534]\n"
        "[access.category.\"test\"]\nsend = [0]\nsubscribe = [0]\n"
        "[access.category.\"news\"]\nserve = [0]\n");
    RawPeer initiator = setting.welcomed("initiator");
    RawPeer responder = setting.welcomed("responder");
    BOOST_TEST((answerTo(initiator, makeFrame(FrameType::request, 1, {"test", "echo", "0", "x"})) ==
                KAVRI_CORE_STATUS_IPC_REFUSED));
    BOOST_TEST((answerTo(initiator, makeFrame(FrameType::subscribe, 2, {.category = "test"})) ==
                KAVRI_CORE_STATUS_IPC_REFUSED));
    BOOST_TEST((answerTo(responder, makeFrame(FrameType::registration, 3, {.category = "news"})) ==
                KAVRI_CORE_STATUS_IPC_REFUSED));
    // What is not refused is granted.
    BOOST_TEST(
        (answerTo(initiator, makeFrame(FrameType::subscribe, 4, {.category = "news"})) == good));
    BOOST_TEST(
        (answerTo(responder, makeFrame(FrameType::registration, 5, {.category = "own"})) == good));
}

BOOST_AUTO_TEST_CASE(oneWhoMayConnectMayNotManageUnlessHeIsNamed) {
    if (!canActAsOthers()) {
        return;
    }
    Setting closed("[access]\nconnect = [65534]\n");
    RawPeer refused = connectAs(nobody, closed.address);
    refused.send(helloFrame("manager"));
    BOOST_TEST(refused.closing() == "status 9: this user may not manage the broker");
    Setting open("[access]\nconnect = [65534]\nmanage = [65534]\n");
    RawPeer manager = open.welcomed("manager");
    manager.send(makeFrame(FrameType::query, 5));
    BOOST_TEST(manager.expect(FrameType::report).values[kavri::wire::Field::identifier] ==
               "broker");
}

BOOST_AUTO_TEST_CASE(hisConnectionsCountForHimAlone) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting("[access]\nconnect = [65534]\n[limits]\nconnections_per_user = 2\n");
    RawPeer first = setting.welcomed("initiator");
    RawPeer second = setting.welcomed("initiator");
    RawPeer third = connectAs(nobody, setting.address);
    BOOST_TEST(third.expect(FrameType::goodbye).values.status == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_CHECK_NO_THROW(RawPeer(setting.address, "initiator"));
}
