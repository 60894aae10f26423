// The real broker against peers that break the rules, by accident or on purpose.
// Each costs itself its connection; all others go on as if nothing had happened.
#define BOOST_TEST_MODULE hostilePeer

#include <boost/test/unit_test.hpp>

#include "process/temporary_folder.h"
#include "support/client.h"
#include "support/raw_peer.h"
#include "support/service_process.h"

using namespace kavri::tests;
namespace wire = kavri::wire;

namespace {

struct Setting {
    explicit Setting(const std::string& config = {})
        : broker(address, {.testService = true, .config = config}) {}

    kavri::process::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
    BrokerProcess broker;
    Library library;
    Initiator bystander{address};
    std::size_t idleDescriptors = broker.descriptors();

    // That nobody else noticed, and nothing of the peers that left is kept.
    void expectOthersUnharmed() {
        bystander.echo("unharmed");
        BOOST_TEST((bystander.receive().uuid == "unharmed"));
        BOOST_TEST(eventually([this] { return broker.descriptors() <= idleDescriptors; }));
    }
    // That the peer is told why it is closed, and is.
    void expectGoodbye(RawPeer& peer, kavri_core_status status, const std::string& reason) {
        const RawFrame goodbye = peer.expect(FrameType::goodbye);
        BOOST_TEST(goodbye.values.status == status);
        const std::string told(goodbye.values[Field::payload]);
        BOOST_TEST(told.find(reason) != std::string::npos, told << " has no " << reason);
        peer.expectEnd();
        BOOST_TEST(broker.logs(reason));
        expectOthersUnharmed();
    }
    void expectMalformed(RawPeer& peer, const std::string& reason) {
        expectGoodbye(peer, KAVRI_CORE_STATUS_IPC_REFUSED, "malformed: " + reason);
    }
};

Frame echoFrame(std::uint64_t token, std::string_view payload = "x") {
    return makeFrame(FrameType::request, token, {"test", "echo", "0", payload});
}

// Bytes that a header of this frame begins with, put to another value.
std::string withByte(const Frame& frame, std::size_t offset, char value) {
    std::string bytes = encode(frame);
    bytes[offset] = value;
    return bytes;
}

constexpr std::size_t totalOffset = 0;
constexpr std::size_t typeOffset = 4;
constexpr std::size_t lengthsOffset = 16;

}  // namespace

BOOST_FIXTURE_TEST_SUITE(beforeHello, Setting)

BOOST_AUTO_TEST_CASE(garbageIsClosed) {
    RawPeer peer(address);
    peer.write("GET / HTTP/1.1\r\nHost: example.org\r\nAccept: everything\r\n\r\n");
    expectMalformed(peer, "unknown frame type");
}

BOOST_AUTO_TEST_CASE(aMebibyteOfGarbageIsClosed) {
    RawPeer peer(address);
    peer.write(std::string(wire::mebibyte, '\xff'));
    peer.expectEnd();
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(anotherVersionIsToldWhich) {
    RawPeer peer(address);
    peer.send(helloFrame("initiator", wire::protocolVersion + 1));
    expectGoodbye(peer, KAVRI_CORE_STATUS_IPC_INCOMPATIBLE, "version");
}

BOOST_AUTO_TEST_CASE(aRoleThatIsNoneIsClosed) {
    RawPeer peer(address);
    peer.send(helloFrame("spectator"));
    expectMalformed(peer, "its role");
}

BOOST_AUTO_TEST_CASE(aRequestBeforeTheHelloIsClosed) {
    RawPeer peer(address);
    peer.send(echoFrame(1));
    expectMalformed(peer, "its first frame is not a hello");
}

BOOST_AUTO_TEST_CASE(connectingAndLeavingAtOnceIsNothing) {
    for (int i = 0; i < 100; ++i) {
        RawPeer peer(address);
    }
    expectOthersUnharmed();
    BOOST_TEST(broker.log().find("closing") == std::string::npos);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(afterHello, Setting)

BOOST_AUTO_TEST_CASE(aSecondHelloIsClosed) {
    RawPeer peer(address, "initiator");
    peer.send(helloFrame("initiator"));
    expectMalformed(peer, "an initiator does not send this type");
}

BOOST_AUTO_TEST_CASE(anInitiatorThatSpeaksAsAResponderIsClosed) {
    for (const FrameType type :
         {FrameType::response, FrameType::completion, FrameType::publish, FrameType::registration,
          FrameType::welcome, FrameType::event, FrameType::acknowledgement, FrameType::notice}) {
        RawPeer peer(address, "initiator");
        peer.send(smallestFrame(type, 1));
        peer.expect(FrameType::goodbye);
        peer.expectEnd();
    }
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aResponderThatSpeaksAsAnInitiatorIsClosed) {
    for (const FrameType type : {FrameType::request, FrameType::subscribe, FrameType::unsubscribe,
                                 FrameType::hello, FrameType::event, FrameType::notice}) {
        RawPeer peer(address, "responder");
        peer.send(smallestFrame(type, 1));
        peer.expect(FrameType::goodbye);
        peer.expectEnd();
    }
    expectOthersUnharmed();
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

BOOST_AUTO_TEST_CASE(aTotalThatContradictsTheFieldsIsClosed) {
    RawPeer peer(address, "initiator");
    peer.write(withByte(echoFrame(1), totalOffset + 3, '\x7f'));
    expectMalformed(peer, "the lengths in the header contradict each other");
}

BOOST_AUTO_TEST_CASE(absurdLengthsOfFieldsAreClosed) {
    for (std::size_t field = 0; field < wire::fieldCount; ++field) {
        RawPeer peer(address, "initiator");
        peer.write(withByte(echoFrame(1), lengthsOffset + 4 * field + 3, '\xff'));
        peer.expect(FrameType::goodbye);
        peer.expectEnd();
    }
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aPayloadOneAboveTheLimitIsClosedBeforeItIsSent) {
    RawPeer peer(address, "initiator");
    peer.write(
        encode(echoFrame(1, std::string(wire::mebibyte + 1, 'x'))).substr(0, wire::headerBytes));
    expectMalformed(peer, "the payload is above the limit");
}

BOOST_AUTO_TEST_CASE(aFieldAbove64KiBIsClosed) {
    RawPeer peer(address, "initiator");
    const std::string above(wire::fieldLimitBytes + 1, 'x');
    peer.write(encode(makeFrame(FrameType::request, 1, {"test", above, "0", "x"}))
                   .substr(0, wire::headerBytes));
    expectMalformed(peer, "a category, identifier or uuid is above 64 KiB");
}

BOOST_AUTO_TEST_CASE(aTypeThatIsNoneIsClosed) {
    for (const char type : {'\0', '\x10', '\xff'}) {
        RawPeer peer(address, "initiator");
        peer.write(withByte(echoFrame(1), typeOffset, type));
        peer.expect(FrameType::goodbye);
        peer.expectEnd();
    }
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aNulInAFieldIsClosed) {
    const std::string small("a\0b", 3);
    std::string large(100'000, 'x');
    large.back() = '\0';
    for (const std::string& payload : {small, large}) {
        RawPeer peer(address, "initiator");
        peer.send(echoFrame(1, payload));
        const RawFrame goodbye = peer.expect(FrameType::goodbye);
        BOOST_TEST(goodbye.values[Field::payload] == "malformed: a field has a NUL byte in it");
        peer.expectEnd();
    }
    expectOthersUnharmed();
}

BOOST_AUTO_TEST_CASE(aMissingFieldIsClosed) {
    RawPeer peer(address, "initiator");
    peer.send(makeFrame(FrameType::request, 1, {"test", "echo", "0", {}}));
    expectMalformed(peer, "a field that this type must have is missing");
}

BOOST_AUTO_TEST_CASE(whatStandsInFrontOfGarbageIsAnswered) {
    RawPeer peer(address, "initiator");
    peer.write(encode(echoFrame(1)) + std::string(100, '\xff'));
    BOOST_TEST(peer.expect(FrameType::response).values.token == 1U);
    expectMalformed(peer, "unknown frame type");
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

BOOST_AUTO_TEST_CASE(aPingIsAnswered) {
    for (const char* role : {"initiator", "responder"}) {
        RawPeer peer(address, role);
        peer.send(makeFrame(FrameType::ping, 77));
        BOOST_TEST(peer.expect(FrameType::pong).values.token == 77U);
    }
}

BOOST_AUTO_TEST_CASE(manyUsesOfOneTokenAreManyRequests) {
    RawPeer peer(address, "initiator");
    peer.write(encode(echoFrame(0)) + encode(echoFrame(0)) + encode(echoFrame(UINT64_MAX)));
    BOOST_TEST(peer.expect(FrameType::response).values.token == 0U);
    BOOST_TEST(peer.expect(FrameType::response).values.token == 0U);
    BOOST_TEST(peer.expect(FrameType::response).values.token == UINT64_MAX);
}

BOOST_AUTO_TEST_CASE(answersToInventedRequestsAreDropped) {
    RawPeer peer(address, "responder");
    for (const std::uint64_t token : {std::uint64_t{0}, std::uint64_t{1}, UINT64_MAX}) {
        peer.send(makeFrame(FrameType::response, token, {"test", "echo", "0", "invented"}));
        peer.send(makeFrame(FrameType::completion, token));
    }
    peer.send(makeFrame(FrameType::publish, 0, {"test", "event", {}, "invented"}));
    peer.send(makeFrame(FrameType::ping, 1));
    peer.expect(FrameType::pong);
    BOOST_TEST(bystander.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(aResponderServesOneCategory) {
    RawPeer peer(address, "responder");
    const std::array<std::pair<const char*, kavri_core_status>, 3> registrations = {
        {{"test", KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN},
         {"one", KAVRI_CORE_STATUS_NO_ERROR},
         {"two", KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN}}};
    for (const auto& [category, status] : registrations) {
        peer.send(makeFrame(FrameType::registration, 1, {.category = category}));
        BOOST_TEST(peer.expect(FrameType::acknowledgement).values.status == status);
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(limits)

BOOST_AUTO_TEST_CASE(whoSaysNoHelloInTimeIsClosed) {
    Setting setting("[limits]\nhandshake_ms = 50");
    RawPeer silent(setting.address);
    RawPeer slow(setting.address);
    slow.write(encode(helloFrame("initiator")).substr(0, 10));
    for (RawPeer* peer : {&silent, &slow}) {
        const RawFrame goodbye = peer->expect(FrameType::goodbye);
        BOOST_TEST(goodbye.values[Field::payload] == "its hello did not arrive in time");
        peer->expectEnd();
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
    kavri_core_ipc_options options = optionsFor(setting.address);
    kavri_core_ipc_initiator* initiator = nullptr;
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, &options, &initiator) ==
               KAVRI_CORE_STATUS_IPC_OVERLOADED);
    BOOST_TEST(initiator == nullptr);
    admitted.clear();
    setting.expectOthersUnharmed();
    BOOST_TEST(eventually([&] {
        const auto status = kavri_core_ipc_initiator_init(nullptr, &options, &initiator);
        return status == KAVRI_CORE_STATUS_NO_ERROR;
    }));
    kavri_core_ipc_deinit(initiator);
}

BOOST_AUTO_TEST_CASE(aSubscriberThatNeverReadsIsClosedAtItsLimit) {
    Setting setting("[limits]\nsend_queue_bytes = 1000000\nstall_ms = 0\n");
    RawPeer deaf(setting.address, "initiator");
    deaf.send(makeFrame(FrameType::subscribe, 1, {.category = "test"}));
    deaf.expect(FrameType::acknowledgement);
    const std::string payload(100'000, 'x');
    BOOST_TEST(eventually([&] {
        BOOST_TEST_REQUIRE(setting.bystander.send("test", "event", "0", payload) ==
                           KAVRI_CORE_STATUS_NO_ERROR);
        setting.bystander.echo("0");
        BOOST_TEST_REQUIRE((setting.bystander.receive().uuid == "0"));
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
    RawPeer deaf(setting.address, "responder");
    deaf.send(makeFrame(FrameType::registration, 1, {.category = "deaf"}));
    deaf.expect(FrameType::acknowledgement);
    Initiator sender(setting.address);
    std::atomic<int> sent{0};
    BlockedCall send([&] {
        const std::string payload(100'000, 'x');
        while (sender.send("deaf", "do", "0", payload) == KAVRI_CORE_STATUS_NO_ERROR) {
            ++sent;
        }
    });
    // It comes to a halt: what is sent stays below what the broker and the
    // sockets hold, while others go on.
    BOOST_TEST(eventually([&] {
        const int before = sent;
        setting.bystander.echo("0");
        BOOST_TEST_REQUIRE((setting.bystander.receive().uuid == "0"));
        return before > 0 && sent == before && send.sleeps();
    }));
    BOOST_TEST(sent < 150);
    // The requests that it had are lost with it, and the sender is let go.
    deaf.close();
    BOOST_TEST((sender.receive(-1).status != KAVRI_CORE_STATUS_NO_ERROR));
    setting.broker.kill();
    send.join();
}

BOOST_AUTO_TEST_CASE(aResponderIsLetGoWhenTheInitiatorThatItWaitsForLeaves) {
    // Patience without end: only the initiator's leaving can let it go.
    Setting setting(
        "[limits]\nsend_queue_bytes = 1000000\nstall_ms = 3600000\nprogress_ms = 3600000\n");
    RawPeer responder(setting.address, "responder");
    responder.send(makeFrame(FrameType::registration, 1, {.category = "work"}));
    responder.expect(FrameType::acknowledgement);
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
    responder.send(makeFrame(FrameType::ping, 5));
    BOOST_TEST(responder.expect(FrameType::pong).values.token == 5U);
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
