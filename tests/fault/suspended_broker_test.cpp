// A broker that did not run for longer than the times it gives its peers, as after
// SIGSTOP or a suspended machine: the time it lost is not theirs.
#define BOOST_TEST_MODULE suspendedBroker

#include <boost/test/unit_test.hpp>
#include <functional>
#include <thread>

#include "support/raw_peer.h"
#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

struct Setting : WithBroker {
    explicit Setting(const std::string& config)
        : WithBroker({.testService = true, .config = config}) {}
    ~Setting() { broker.thaw(); }

    // The one wait for time in these tests: it is what they are about.
    void suspendFor(
        std::chrono::milliseconds time, const std::function<void()>& meanwhile = [] {}) {
        broker.freeze();
        meanwhile();
        std::this_thread::sleep_for(time);
        broker.thaw();
    }
    void accept() const { RawPeer(address, "initiator"); }
};

}  // namespace

BOOST_AUTO_TEST_CASE(whoHasSaidHelloMeanwhileIsWelcomed) {
    Setting setting("[limits]\nconnections_per_user = 1000\nhandshake_ms = 300");
    std::vector<RawPeer> peers;
    for (int i = 0; i < 600; ++i) {
        peers.emplace_back(setting.address);
    }
    setting.accept();  // after those before it
    setting.suspendFor(std::chrono::milliseconds(600), [&] {
        for (RawPeer& peer : peers) {
            peer.send(helloFrame("initiator"));
        }
    });
    for (RawPeer& peer : peers) {
        BOOST_REQUIRE_NO_THROW(peer.expect(FrameType::welcome));
    }
}

BOOST_AUTO_TEST_CASE(whoHasNotYetSaidHelloHasItsTimeAgain) {
    Setting setting("[limits]\nhandshake_ms = 2000");
    RawPeer peer(setting.address);
    setting.accept();
    setting.suspendFor(std::chrono::milliseconds(2500));
    setting.accept();  // the broker has found its deadlines passed, or not
    peer.send(helloFrame("initiator"));
    BOOST_CHECK_NO_THROW(peer.expect(FrameType::welcome));
}

BOOST_AUTO_TEST_CASE(whoTookNothingMeanwhileHasItsTimeAgain) {
    Setting setting("[limits]\nprogress_ms = 2000");
    RawPeer slow(setting.address, "initiator");
    // More answers than the sockets hold.
    constexpr int requests = 60;
    const std::string request =
        encode(makeFrame(FrameType::request, 1, {"test", "echo", "0", std::string(90'000, 'x')}));
    for (int i = 0; i < requests; ++i) {
        slow.write(request);
    }
    setting.accept();
    setting.suspendFor(std::chrono::milliseconds(2500));
    setting.accept();
    for (int i = 0; i < requests; ++i) {
        BOOST_REQUIRE_NO_THROW(slow.expect(FrameType::response));
    }
}
