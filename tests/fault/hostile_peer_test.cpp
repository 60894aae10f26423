// The real broker against peers that break the rules, by accident or on purpose.
// Each costs itself its connection; all others go on as if nothing had happened.
#define BOOST_TEST_MODULE hostilePeer

#include <boost/test/unit_test.hpp>

#include "support/raw_peer.h"
#include "support/with_broker.h"

using namespace kavri::tests;
namespace wire = kavri::wire;

namespace {

struct Setting : WithBroker {
    explicit Setting(const std::string& config = {})
        : WithBroker({.testService = true, .config = config}) {}

    Initiator bystander{address};
    std::size_t idleDescriptors = broker.descriptors();

    // That nobody else noticed, and nothing of the peers that left is kept.
    void expectOthersUnharmed() {
        BOOST_TEST(bystander.echoes("unharmed"));
        BOOST_TEST(eventually([this] { return broker.descriptors() <= idleDescriptors; }));
    }
};

Frame echoFrame(std::uint64_t token, std::string_view payload = "x") {
    return makeFrame(FrameType::request, token, {"test", "echo", "0", payload});
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(brokenRules, Setting)

// Which rules there are is the protocol's own test.
BOOST_AUTO_TEST_CASE(whoBreaksOneIsToldWhichAndClosed) {
    const std::string withNul = std::string(100'000, 'x') + '\0';
    const std::string above(wire::mebibyte + 1, 'x');
    const std::string hello = encode(helloFrame("initiator"));
    const std::vector<std::pair<std::string, std::string>> said = {
        {"GET / HTTP/1.1\r\nHost: example.org\r\nAccept: everything\r\n\r\n",
         "status 9: malformed: unknown frame type"},
        {encode(helloFrame("initiator", wire::protocolVersion + 1)),
         "status 8: the broker speaks protocol version 1, the client version 2"},
        {hello + hello, "status 9: malformed: an initiator does not send this type"},
        {hello + encode(echoFrame(1, withNul)),
         "status 9: malformed: a field has a NUL byte in it"},
        // Its header is enough: the rest is neither waited for nor read.
        {hello + encode(echoFrame(1, above)).substr(0, wire::headerBytes),
         "status 9: malformed: the payload is above the limit of this connection"}};
    for (const auto& [bytes, reason] : said) {
        RawPeer peer(address);
        peer.write(bytes);
        if (bytes.starts_with(hello)) {
            peer.expect(FrameType::welcome);
        }
        BOOST_TEST(peer.closing() == reason);
        BOOST_TEST(broker.logs(reason.substr(std::string("status 9: ").size())));
        expectOthersUnharmed();
    }
}

BOOST_AUTO_TEST_CASE(aMebibyteOfGarbageIsClosed) {
    RawPeer peer(address);
    peer.write(std::string(wire::mebibyte, '\xff'));
    peer.expectEnd();
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(connectingAndLeavingAtOnceIsNothing) {
    for (int i = 0; i < 100; ++i) {
        RawPeer peer(address);
    }
    expectOthersUnharmed();
    BOOST_TEST(broker.log().find("closing") == std::string::npos);
}

BOOST_AUTO_TEST_CASE(aFrameThatIsCutShortByTheEndIsNothing) {
    const std::string request = encode(echoFrame(1, std::string(100'000, 'x')));
    for (const std::size_t length :
         {std::size_t{1}, std::size_t{31}, std::size_t{32}, std::size_t{40}, request.size() - 1}) {
        RawPeer peer(address, "initiator");
        peer.write(request.substr(0, length));
        peer.close();
    }
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(whatStandsInFrontOfGarbageIsAnswered) {
    RawPeer peer(address, "initiator");
    peer.write(encode(echoFrame(1)) + std::string(100, '\xff'));
    BOOST_TEST(peer.expect(FrameType::response).values.token == 1U);
    BOOST_TEST(peer.closing() == "status 9: malformed: unknown frame type");
}

BOOST_AUTO_TEST_CASE(aRequestInSingleBytesIsAnswered) {
    RawPeer peer(address);
    for (const char byte : encode(helloFrame("initiator")) + encode(echoFrame(7))) {
        peer.write({&byte, 1});
    }
    peer.expect(FrameType::welcome);
    BOOST_TEST(peer.expect(FrameType::response).values.token == 7U);
}

BOOST_AUTO_TEST_CASE(aPeerThatEndedSendingStillReadsItsAnswers) {
    RawPeer peer(address, "initiator");
    peer.write(encode(echoFrame(1)) + encode(echoFrame(2)));
    BOOST_TEST(peer.expect(FrameType::response).values.token == 1U);
    BOOST_TEST(peer.expect(FrameType::response).values.token == 2U);
    peer.endSending();
    peer.expectEnd();
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(limits)

BOOST_AUTO_TEST_CASE(whoSaysNoHelloInTimeIsClosed) {
    Setting setting("[limits]\nhandshake_ms = 50");
    RawPeer silent(setting.address);
    RawPeer slow(setting.address);
    slow.write(encode(helloFrame("initiator")).substr(0, 10));
    for (RawPeer* peer : {&silent, &slow}) {
        BOOST_TEST(peer->closing() == "status 9: its hello did not arrive in time");
    }
    // One who did is let be.
    setting.expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aThousandConnectionsAboveTheLimitOfAUserAreTurnedAway) {
    Setting setting("[limits]\nconnections_per_user = 5");
    std::vector<RawPeer> admitted;
    for (int i = 0; i < 4; ++i) {  // the bystander is the fifth
        admitted.emplace_back(setting.address, "initiator");
    }
    int turnedAway = 0;
    for (int i = 0; i < 1000; ++i) {
        RawPeer peer(setting.address);
        const RawFrame goodbye = peer.expect(FrameType::goodbye);
        turnedAway += goodbye.values.status == KAVRI_CORE_STATUS_IPC_OVERLOADED ? 1 : 0;
        peer.expectEnd();
        BOOST_TEST_REQUIRE(!setting.broker.log().empty());  // read, that it may go on writing
    }
    BOOST_TEST(turnedAway == 1000);
    const kavri_core_ipc_options options = optionsFor(setting.address);
    BOOST_TEST(initStatus(options) == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    admitted.clear();
    setting.expectOthersUnharmed();
    BOOST_TEST(eventually([&] { return initStatus(options) == good; }));
}

BOOST_AUTO_TEST_CASE(aSubscriberThatNeverReadsIsClosedAtItsLimit) {
    Setting setting("[limits]\nsend_queue_bytes = 1000000\nstall_ms = 0\n");
    const RawPeer deaf = subscriberOf(setting.address, "test");
    const std::string payload(100'000, 'x');
    BOOST_TEST(eventually([&] {
        BOOST_TEST_REQUIRE(setting.bystander.send("test", "event", "0", payload) == good);
        BOOST_TEST_REQUIRE(setting.bystander.echoes());
        return setting.broker.log().find("send queue is full") != std::string::npos;
    }));
    setting.expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(anInitiatorThatNeverReadsItsAnswersIsClosedAfterATime) {
    Setting setting("[limits]\nsend_queue_bytes = 1000000\nprogress_ms = 50\n");
    RawPeer deaf(setting.address, "initiator");
    const std::string request = encode(echoFrame(1, std::string(100'000, 'x')));
    BlockedCall attack([&] {
        for (int i = 0; i < 50; ++i) {
            deaf.write(request);
        }
    });
    BOOST_TEST(setting.broker.logs("its send queue made no progress for too long"));
    attack.join();
    deaf.close();
    setting.expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aResponderThatTakesNothingHoldsUpOnlyWhoSendsToIt) {
    Setting setting(
        "[limits]\nsend_queue_bytes = 1000000\nstall_ms = 3600000\nprogress_ms = 3600000\n");
    RawPeer deaf = responderFor(setting.address, "deaf");
    Initiator sender(setting.address);
    std::atomic<int> sent{0};
    BlockedCall send([&] {
        const std::string payload(100'000, 'x');
        while (sender.send("deaf", "do", "0", payload) == good) {
            ++sent;
        }
    });
    // It comes to a halt: what is sent stays below what the broker and the
    // sockets hold, while others go on.
    BOOST_TEST(eventually([&] {
        const int before = sent;
        BOOST_TEST_REQUIRE(setting.bystander.echoes());
        return before > 0 && sent == before && send.sleeps();
    }));
    BOOST_TEST(sent < 150);
    // The requests that it had are lost with it, and the sender is let go.
    deaf.close();
    BOOST_TEST((sender.receive(-1).status != good));
    setting.broker.kill();
    send.join();
}

BOOST_AUTO_TEST_CASE(aResponderIsLetGoWhenTheInitiatorThatItWaitsForLeaves) {
    // Patience without end: only the initiator's leaving can let it go.
    Setting setting(
        "[limits]\nsend_queue_bytes = 1000000\nstall_ms = 3600000\nprogress_ms = 3600000\n");
    RawPeer responder = responderFor(setting.address, "work");
    RawPeer deaf(setting.address, "initiator");
    std::string answers;
    const std::string payload(100'000, 'x');
    for (int i = 0; i < 150; ++i) {
        deaf.send(makeFrame(FrameType::request, 1, {"work", "do", "0", "x"}));
        const RawFrame request = responder.expect(FrameType::request);
        answers += encode(
            makeFrame(FrameType::response, request.values.token, {"work", "do", "0", payload}));
    }
    // Until the broker takes no more of them, and sleeps.
    std::size_t written = 0;
    BOOST_TEST(eventually([&] {
        const std::size_t count = responder.writeSome(std::string_view(answers).substr(written));
        written += count;
        return count == 0 && setting.broker.sleeps();
    }));
    BOOST_TEST(written < answers.size());
    deaf.endSending();
    responder.write(std::string_view(answers).substr(written));
    responder.ping();
    setting.bystander.send("work", "do", "mine");
    const RawFrame request = responder.expect(FrameType::request);
    responder.send(
        makeFrame(FrameType::response, request.values.token, {"work", "do", "mine", "done"}));
    BOOST_TEST((setting.bystander.receive().uuid == "mine"));
}

BOOST_AUTO_TEST_CASE(aSlowReaderThatGoesOnReadingGetsEverything) {
    Setting setting("[limits]\nsend_queue_bytes = 1000000\n");
    RawPeer slow(setting.address, "initiator");
    const std::string request = encode(echoFrame(1, std::string(100'000, 'x')));
    constexpr int count = 150;
    BlockedCall send([&] {
        for (int i = 0; i < count; ++i) {
            slow.write(request);
        }
    });
    BOOST_TEST(send.sleeps());
    for (int i = 0; i < count; ++i) {
        slow.expect(FrameType::response);
    }
    send.join();
    slow.close();
    setting.expectOthersUnharmed();
}

BOOST_AUTO_TEST_SUITE_END()
