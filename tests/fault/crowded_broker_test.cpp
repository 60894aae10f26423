// A broker under attack: by storms of connections, by floods of frames, and with
// no descriptors left. Who was there before goes on as if nothing happened.
#define BOOST_TEST_MODULE crowdedBroker

#include <sys/resource.h>

#include <boost/test/unit_test.hpp>

#include "support/attack.h"
#include "support/other_user.h"
#include "support/with_broker.h"

using namespace kavri::tests;
namespace wire = kavri::wire;

namespace {

// Far more than a ping takes under any of these attacks, on a machine with much
// else to do.
constexpr double longestPingMs = 2000;
constexpr std::size_t pings = 300;
constexpr std::size_t mostLogBytes = 64 * wire::kibibyte;

struct Setting : WithBroker {
    explicit Setting(const BrokerSettings& settings = {}) : WithBroker(settings) {
        openFolder(folder.path());
    }

    Bystander bystander{address};

    template <typename Make>
    static std::vector<Attacker> threeTimes(const Make& make) {
        std::vector<Attacker> attackers;
        for (int i = 0; i < 3; ++i) {
            attackers.push_back(make());
        }
        return attackers;
    }
    std::vector<Attacker> storm(std::optional<uid_t> user = std::nullopt) const {
        return threeTimes(
            [&] { return Attacker([path = address] { connectAndClose(path); }, user); });
    }
    // From so many connections of each of three processes.
    std::vector<Attacker> flood(std::size_t connections, const char* role, FrameType type) const {
        const std::string bytes = repeated(encode(makeFrame(type, 1)), 4096);
        return threeTimes([&] { return floodingAttacker(address, connections, role, bytes); });
    }

    void expectUnharmed() {
        BOOST_TEST(bystander.pings(pings).longestMs() < longestPingMs);
        RawPeer(address, "initiator");  // a new one gets in too
        BOOST_TEST(broker.stop());      // and signals are obeyed
        BOOST_TEST(broker.log().size() < mostLogBytes);
    }
};

// The socket file is open to others, since one of them may connect.
const BrokerSettings someoneElseMayConnect = {.config = "[access]\nconnect = [1]\n"};

}  // namespace

BOOST_AUTO_TEST_SUITE(storms)

BOOST_AUTO_TEST_CASE(ofAUserWhoMayNotConnectStarveNobody) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting(someoneElseMayConnect);
    const auto attackers = setting.storm(nobody);
    BOOST_TEST(setting.broker.logs("refused process"));
    setting.expectUnharmed();
}

BOOST_AUTO_TEST_CASE(ofAUserWhoMayConnectStarveNobody) {
    Setting setting;
    const auto attackers = setting.storm();
    setting.expectUnharmed();
}

BOOST_AUTO_TEST_CASE(ofHandshakesStarveNobody) {
    Setting setting;
    const auto attackers = Setting::threeTimes([&] {
        return Attacker([path = setting.address] { RawPeer(path).send(helloFrame("initiator")); });
    });
    setting.expectUnharmed();
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(floods)

BOOST_AUTO_TEST_CASE(ofPingsDelayOthersOnlyBriefly) {
    Setting setting;
    const auto attackers = setting.flood(80, "initiator", FrameType::ping);
    setting.expectUnharmed();
}

BOOST_AUTO_TEST_CASE(ofBogusCompletionsFillNoLog) {
    Setting setting;
    const auto attackers = setting.flood(1, "responder", FrameType::completion);
    BOOST_TEST(setting.broker.logs("completed a request"));
    setting.expectUnharmed();
    BOOST_TEST(setting.broker.log().find(" more in ") != std::string::npos);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(managers)

BOOST_AUTO_TEST_CASE(thatAskWithoutEndDelayOthersOnlyBriefly) {
    Setting setting;
    const auto attackers = setting.flood(80, "manager", FrameType::query);
    setting.expectUnharmed();
}

BOOST_AUTO_TEST_CASE(thatNeverReadAreClosedAndHarmNobody) {
    Setting setting({.config = "[limits]\nprogress_ms = 300\nsend_queue_bytes = 65536\n"});
    RawPeer manager(setting.address, "manager");
    manager.makeNonBlocking();
    const std::string queries = repeated(encode(makeFrame(FrameType::query, 1)), 1000);
    pollfd closed{manager.descriptor(), POLLRDHUP, 0};
    BOOST_TEST(eventually([&] {
        manager.writeSome(queries);
        return ::poll(&closed, 1, 1) > 0;
    }));
    BOOST_TEST(setting.broker.logs("its send queue made no progress for too long"));
    setting.expectUnharmed();
}

BOOST_AUTO_TEST_CASE(withoutTheRightAreRefusedAndFillNoLog) {
    if (!canActAsOthers()) {
        return;
    }
    Setting setting({.config = "[access]\nconnect = [65534]\n"});
    const auto attackers = Setting::threeTimes([&] {
        return Attacker(
            [path = setting.address] {
                RawPeer peer(path);
                peer.send(helloFrame("manager"));
                peer.expect(FrameType::goodbye);
            },
            nobody);
    });
    BOOST_TEST(setting.broker.logs("this user may not manage the broker"));
    setting.expectUnharmed();
}

// Every report ends, whatever comes and goes meanwhile.
BOOST_AUTO_TEST_CASE(areAnsweredWhileOthersComeAndGo) {
    Setting setting;
    const auto attackers = Setting::threeTimes([&] {
        return Attacker([path = setting.address, peers = std::vector<RawPeer>()]() mutable {
            if (peers.size() == 60) {
                peers.erase(peers.begin());
            }
            peers.push_back(subscriberOf(path, std::to_string(peers.size())));
        });
    });
    RawPeer manager(setting.address, "manager");
    for (std::uint64_t token = 1; token <= 50; ++token) {
        manager.send(makeFrame(FrameType::query, token));
        RawFrame answer = manager.receive();
        for (; answer.values.type == FrameType::report; answer = manager.receive()) {
            BOOST_TEST(answer.values.token == token);
        }
        BOOST_TEST((answer.values.type == FrameType::acknowledgement));
        BOOST_TEST(answer.values.status == KAVRI_CORE_STATUS_NO_ERROR);
    }
    setting.expectUnharmed();
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(unreadLog, Setting)

// More than a pipe holds, if each were logged. The log is read only afterwards.
BOOST_AUTO_TEST_CASE(stopsNobody) {
    RawPeer responder(address, "responder");
    for (int i = 0; i < 3000; ++i) {
        responder.send(makeFrame(FrameType::completion, 99));
    }
    BOOST_CHECK_NO_THROW(responder.ping());
    bystander.ping();
    BOOST_TEST(broker.stop());
    BOOST_TEST(broker.log().find("... and 2990 more in ") != std::string::npos, broker.log());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(descriptors, Setting)

BOOST_AUTO_TEST_CASE(runningOutHarmsNobodyAndPasses) {
    const rlim_t some = broker.descriptors() + 3;
    const rlimit limit{some, some};
    BOOST_REQUIRE(::prlimit(broker.pid(), RLIMIT_NOFILE, &limit, nullptr) == 0);
    std::vector<RawPeer> admitted;
    for (int i = 0; i < 3; ++i) {
        admitted.emplace_back(address, "initiator");
    }
    std::vector<RawPeer> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.emplace_back(address);
        waiting.back().send(helloFrame("initiator"));
    }
    BOOST_TEST(broker.logs("cannot accept a connection"));
    BOOST_TEST(bystander.pings(pings).longestMs() < longestPingMs);
    admitted.clear();
    for (RawPeer& peer : waiting) {
        peer.expect(FrameType::welcome);
    }
    BOOST_TEST(broker.stop());
}

BOOST_AUTO_TEST_SUITE_END()
