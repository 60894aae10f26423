// The library against a broker that breaks the protocol or invents answers: none of them may
// reach the caller as a message, crash the program, or block a call.
#define BOOST_TEST_MODULE lyingBroker

#include <boost/test/unit_test.hpp>

#include "support/scripted_connection.h"

using namespace kavri::tests;
namespace wire = kavri::wire;
using Clock = std::chrono::steady_clock;

namespace {

struct Setting : WithFakeBroker {
    // What init comes to while the broker follows the script.
    template <typename Script>
    kavri_core_status initAgainst(const Script& script, unsigned connectTimeoutMs = 0) {
        auto played = std::async(std::launch::async, [&] {
            RawPeer peer = broker.accept();
            script(peer);
            return peer;
        });
        kavri_core_ipc_options options = optionsFor(address, connectWithin(connectTimeoutMs));
        kavri_core_ipc_initiator* initiator = nullptr;
        const kavri_core_status status =
            kavri_core_ipc_initiator_init(nullptr, &options, &initiator);
        played.get();
        BOOST_TEST((initiator != nullptr) == (status == KAVRI_CORE_STATUS_NO_ERROR));
        if (initiator != nullptr) {
            kavri_core_ipc_deinit(initiator);
        }
        return status;
    }
};

Frame goodbyeFrame(int status) {
    return makeFrame(FrameType::goodbye, 0, {.payload = "no"}, static_cast<std::uint16_t>(status));
}

Frame statusFrame(FrameType type, std::uint64_t token, int status) {
    return makeFrame(type, token, {}, static_cast<std::uint16_t>(status));
}

struct Connected : ScriptedConnection {
    using ScriptedConnection::ScriptedConnection;

    // That the connection works: a true answer arrives.
    void expectAnswer() {
        const std::uint64_t token = ask("true");
        peer.send(responseFrame(token, "true"));
        const Message response = initiator.receive();
        BOOST_TEST(response.status == KAVRI_CORE_STATUS_NO_ERROR);
        BOOST_TEST((response.uuid == "true"));
        BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    }
    // That what was just sent to it cost it the connection, which it reports once.
    void expectLoss() {
        BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
        peer.expectEnd();
    }
};

// With a deadline for a test that reaches it.
struct ShortSendTimeout : Connected {
    ShortSendTimeout() : Connected(sendWithin(100)) {}
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(greeting, Setting)

BOOST_AUTO_TEST_CASE(aRefusalReachesTheCaller) {
    for (const kavri_core_status status :
         {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE, KAVRI_CORE_STATUS_IPC_REFUSED,
          KAVRI_CORE_STATUS_IPC_OVERLOADED, KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE}) {
        BOOST_TEST(initAgainst([&](RawPeer& peer) { peer.send(goodbyeFrame(status)); }) == status);
    }
}

BOOST_AUTO_TEST_CASE(aRefusalWithoutAReasonIsNoSuccess) {
    BOOST_TEST(initAgainst([](RawPeer& peer) {
                   peer.send(goodbyeFrame(KAVRI_CORE_STATUS_NO_ERROR));
               }) == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
}

BOOST_AUTO_TEST_CASE(aWelcomeOfAnotherVersionIsIncompatible) {
    BOOST_TEST(initAgainst([](RawPeer& peer) {
                   peer.expect(FrameType::hello);
                   peer.send(FakeBroker::welcomeFrame("", wire::protocolVersion + 1));
               }) == KAVRI_CORE_STATUS_IPC_INCOMPATIBLE);
}

BOOST_AUTO_TEST_CASE(whatIsNoFrameIsIncompatible) {
    BOOST_TEST(initAgainst([](RawPeer& peer) {
                   peer.write("220 mail.example.org ESMTP ready, and what can I do for you\r\n");
               }) == KAVRI_CORE_STATUS_IPC_INCOMPATIBLE);
}

BOOST_AUTO_TEST_CASE(aFrameOutOfPlaceIsIncompatible) {
    BOOST_TEST(initAgainst([](RawPeer& peer) { peer.send(responseFrame(1, "0")); }) ==
               KAVRI_CORE_STATUS_IPC_INCOMPATIBLE);
}

BOOST_AUTO_TEST_CASE(aConnectionClosedWithoutAWordIsUnavailable) {
    BOOST_TEST(initAgainst([](RawPeer& peer) { peer.close(); }) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
}

BOOST_AUTO_TEST_CASE(aConnectionClosedWithinTheWelcomeIsUnavailable) {
    const std::string welcome = encode(FakeBroker::welcomeFrame("payload_bytes=1\n"));
    for (const std::size_t length : {std::size_t{1}, std::size_t{40}, welcome.size() - 1}) {
        BOOST_TEST(initAgainst([&](RawPeer& peer) {
                       peer.expect(FrameType::hello);
                       peer.write(welcome.substr(0, length));
                       peer.close();
                   }) == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    }
}

BOOST_AUTO_TEST_CASE(noWelcomeInTimeIsUnavailable) {
    const auto begin = Clock::now();
    BOOST_TEST(initAgainst([](RawPeer& peer) { peer.expect(FrameType::hello); }, 100) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    BOOST_TEST((Clock::now() - begin >= std::chrono::milliseconds(100)));
}

BOOST_AUTO_TEST_CASE(malformedLimitsAreIncompatible) {
    for (const char* limits :
         {"payload_bytes=", "payload_bytes=many\n", "payload_bytes=99999999999999999999999\n",
          "payload_bytes=-1\n", "payload_bytes\n", "payload_bytes=10"}) {
        BOOST_TEST(initAgainst([&](RawPeer& peer) {
                       peer.expect(FrameType::hello);
                       peer.send(FakeBroker::welcomeFrame(limits));
                   }) == KAVRI_CORE_STATUS_IPC_INCOMPATIBLE);
    }
}

BOOST_AUTO_TEST_CASE(aLimitCountsOnlyUnderItsOwnName) {
    for (const char* limits : {"", "most_payload_bytes=10\n", "note=payload_bytes=10\n"}) {
        auto welcomed = broker.welcomeNext(limits);
        Initiator initiator(address);
        RawPeer peer = welcomed.get();
        BOOST_TEST(initiator.echo("0", std::string(1000, 'x')) == KAVRI_CORE_STATUS_NO_ERROR);
        peer.expect(FrameType::request);
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(answers, Connected)

BOOST_AUTO_TEST_CASE(aResponseToNothingIsDropped) {
    peer.send(responseFrame(77, "invented"));
    peer.send(responseFrame(0, "invented"));
    expectAnswer();
}

BOOST_AUTO_TEST_CASE(aResponseWithAWrongTokenIsDroppedAndTheRequestStaysOpen) {
    const std::uint64_t token = ask("asked");
    peer.send(responseFrame(token + 1, "wrong"));
    peer.send(responseFrame(token - 1, "wrong"));
    peer.send(responseFrame(UINT64_MAX, "wrong"));
    peer.send(responseFrame(token, "asked"));
    BOOST_TEST((initiator.receive().uuid == "asked"));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(aResponseThatComesTwiceIsReceivedOnce) {
    const std::uint64_t token = ask("once");
    peer.send(responseFrame(token, "once"));
    peer.send(responseFrame(token, "once"));
    BOOST_TEST((initiator.receive().uuid == "once"));
    expectAnswer();
}

BOOST_AUTO_TEST_CASE(aResponseThatComesTwiceReachesTheCallbackOnce) {
    Inbox inbox;
    initiator.onResponse(Inbox::response, &inbox);
    const std::uint64_t token = ask("once");
    peer.send(responseFrame(token, "once"));
    peer.send(responseFrame(token, "once"));
    peer.send(responseFrame(ask("last"), "last"));
    BOOST_TEST(inbox.waitFor(2));
    BOOST_TEST((inbox.uuids() == std::vector<std::string>{"once", "last"}));
}

BOOST_AUTO_TEST_CASE(anOutcomeOfNothingIsIgnored) {
    for (const FrameType type :
         {FrameType::notice, FrameType::completion, FrameType::acknowledgement}) {
        peer.send(statusFrame(type, 77, KAVRI_CORE_STATUS_IPC_REFUSED));
    }
    expectAnswer();
}

BOOST_AUTO_TEST_CASE(aNoticeAndAResponseForOneRequestAreOneOutcome) {
    const std::uint64_t token = ask();
    peer.send(statusFrame(FrameType::notice, token, KAVRI_CORE_STATUS_IPC_RESPONDER_LOST));
    peer.send(responseFrame(token, "after all"));
    BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
    expectAnswer();
}

BOOST_AUTO_TEST_CASE(aNoticeThatNothingFailedIsNoResponse) {
    const std::uint64_t token = ask();
    peer.send(statusFrame(FrameType::notice, token, KAVRI_CORE_STATUS_NO_ERROR));
    Strings strings;
    BOOST_TEST(kavri_core_ipc_initiator_response_receive(
                   initiator.get(), -1, &strings.category, &strings.identifier, &strings.uuid,
                   &strings.payload) == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
    BOOST_TEST(strings.areUntouched());
}

BOOST_AUTO_TEST_CASE(aStatusThatTheLibraryDoesNotKnowIsALaterVersions) {
    peer.send(statusFrame(FrameType::notice, ask(), 999));
    BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_INCOMPATIBLE);
    expectAnswer();
}

BOOST_AUTO_TEST_CASE(framesThatAreNotForAnInitiatorAreIgnored) {
    peer.send(makeFrame(FrameType::request, 1, {"test", "echo", "0", "x"}));
    peer.send(makeFrame(FrameType::subscribe, 1, {.category = "test"}));
    peer.send(helloFrame("initiator"));
    peer.send(makeFrame(FrameType::ping, 1));
    expectAnswer();
}

BOOST_AUTO_TEST_CASE(eventsNobodySubscribedToAreDropped) {
    Inbox inbox;
    initiator.onEvent(Inbox::event, &inbox);
    Frame event = makeFrame(FrameType::event, 0, {"test", "event", {}, "unasked"});
    peer.send(event);
    expectAnswer();
    // What is subscribed to comes; had the other been kept it would come first.
    auto acknowledged = std::async(std::launch::async, [this] {
        const std::uint64_t token = peer.expect(FrameType::subscribe).values.token;
        peer.send(statusFrame(FrameType::acknowledgement, token, KAVRI_CORE_STATUS_NO_ERROR));
    });
    BOOST_TEST(initiator.subscribe("test") == KAVRI_CORE_STATUS_NO_ERROR);
    acknowledged.get();
    event[Field::payload] = "asked";
    peer.send(event);
    BOOST_TEST(inbox.waitFor(1));
    BOOST_TEST((inbox.payloads() == std::vector<std::string>{"asked"}));
}

BOOST_FIXTURE_TEST_CASE(anAcknowledgementThatNeverComesIsNotWaitedForLong, ShortSendTimeout) {
    BOOST_TEST(initiator.subscribe("test") == KAVRI_CORE_STATUS_IPC_OVERLOADED);
    peer.expect(FrameType::subscribe);
    expectAnswer();
}

BOOST_AUTO_TEST_CASE(aResponseInSingleBytesIsReceived) {
    const std::uint64_t token = ask("pieces");
    for (const char byte : encode(responseFrame(token, "pieces"))) {
        BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
        peer.write({&byte, 1});
    }
    BOOST_TEST((initiator.receive().uuid == "pieces"));
}

BOOST_AUTO_TEST_CASE(aLargeResponseInPiecesIsReceivedWithWhatComesBehindIt) {
    std::string payload(100'000, 'x');
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>('a' + i % 23);
    }
    const std::uint64_t large = ask("large");
    const std::uint64_t small = ask("small");
    const std::string bytes =
        encode(responseFrame(large, "large", payload)) + encode(responseFrame(small, "small"));
    // Cut within the header, right behind it, within the payload, and around its end.
    const std::size_t end = bytes.size() - encode(responseFrame(small, "small")).size();
    std::size_t begin = 0;
    for (const std::size_t cut : {std::size_t{20}, std::size_t{32}, std::size_t{40},
                                  std::size_t{70'000}, end - 1, end + 1, end + 32, bytes.size()}) {
        BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
        peer.write(bytes.substr(begin, cut - begin));
        begin = cut;
        if (cut == end + 1) {
            const Message received = initiator.receive();
            BOOST_TEST((received.uuid == "large"));
            BOOST_TEST((received.payload == payload));
        }
    }
    BOOST_TEST((initiator.receive().uuid == "small"));
}

BOOST_AUTO_TEST_CASE(anAnswerThatIsThereGoesBeforeAFailureThatCameBeforeIt) {
    const std::uint64_t answered = ask("answered");
    const std::uint64_t failed = ask("failed");
    peer.write(
        encode(statusFrame(FrameType::notice, failed, KAVRI_CORE_STATUS_IPC_RESPONDER_LOST)) +
        encode(responseFrame(answered, "answered")));
    BOOST_TEST((initiator.receive(-1).uuid == "answered"));
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
}

BOOST_AUTO_TEST_CASE(manyResponsesInOneWriteAreAllReceived) {
    std::string bytes;
    for (const std::string& uuid : numbers(100)) {
        bytes += encode(responseFrame(ask(uuid), uuid));
    }
    peer.write(bytes);
    for (const std::string& uuid : numbers(100)) {
        BOOST_TEST((initiator.receive().uuid == uuid));
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(malformed, Connected)

BOOST_AUTO_TEST_CASE(garbageCostsTheConnection) {
    ask();
    peer.write(std::string(100, '\xff'));
    expectLoss();
}

BOOST_AUTO_TEST_CASE(garbageCostsTheConnectionWhileACallbackIsInstalled) {
    Inbox inbox;
    initiator.onResponse(Inbox::response, &inbox);
    peer.write(std::string(100, '\xff'));
    peer.expectEnd();
    // The library's thread comes back by itself.
    peer = broker.acceptAndWelcome();
    peer.send(responseFrame(ask("again"), "again"));
    BOOST_TEST(inbox.waitFor(1));
}

BOOST_AUTO_TEST_CASE(aBlockedReceiveReturnsAfterGarbage) {
    ask();
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    BlockedCall receive([&] { status = initiator.receive(-1).status; });
    BOOST_TEST(receive.sleeps());
    peer.write(std::string(100, '\0'));
    receive.join();
    BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
}

BOOST_AUTO_TEST_CASE(responsesInFrontOfGarbageAreReceived) {
    const std::uint64_t token = ask("good");
    peer.write(encode(responseFrame(token, "good")) + std::string(100, '\xff'));
    BOOST_TEST((initiator.receive(-1).uuid == "good"));
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
}

BOOST_AUTO_TEST_CASE(aNulInAFieldCostsTheConnection) {
    const std::string_view withNul("a\0b", 3);
    peer.send(responseFrame(ask(), withNul));
    expectLoss();
}

BOOST_AUTO_TEST_CASE(aNulInALargePayloadCostsTheConnection) {
    std::string payload(100'000, 'x');
    payload[90'000] = '\0';
    const std::string bytes = encode(responseFrame(ask(), "0", payload));
    peer.write(bytes.substr(0, 100));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    peer.write(bytes.substr(100));
    expectLoss();
}

BOOST_AUTO_TEST_CASE(responsesThatArrivedAreReceivedThoughASendFindsTheBrokerGone) {
    const std::uint64_t first = ask("first");
    const std::uint64_t second = ask("second");
    peer.write(encode(responseFrame(first, "first")) + encode(responseFrame(second, "second")));
    BOOST_TEST((initiator.receive(-1).uuid == "first"));
    peer.close();
    BOOST_TEST(initiator.echo("third") != KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST((initiator.receive(-1).uuid == "second"));
}

BOOST_AUTO_TEST_CASE(aPayloadAboveTheLimitCostsTheConnection) {
    const std::string payload(1048577, 'x');
    // Its header is enough: the rest is neither waited for nor read.
    peer.write(encode(responseFrame(ask(), "0", payload)).substr(0, 32));
    expectLoss();
}

BOOST_AUTO_TEST_CASE(lengthsThatContradictEachOtherCostTheConnection) {
    std::string bytes = encode(responseFrame(ask(), "0"));
    bytes[0] = static_cast<char>(bytes[0] + 1);
    peer.write(bytes);
    expectLoss();
}

BOOST_AUTO_TEST_CASE(aFieldThatMustBeThereAndIsNotCostsTheConnection) {
    Frame response = responseFrame(ask(), "0");
    response[Field::uuid] = {};
    peer.send(response);
    expectLoss();
}

BOOST_AUTO_TEST_CASE(anEndInTheMiddleOfAFrameLosesItAndTheConnection) {
    const std::string response = encode(responseFrame(ask(), "cut"));
    peer.write(response.substr(0, response.size() - 1));
    peer.close();
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
}

BOOST_AUTO_TEST_CASE(theConnectionIsMadeAgainAfterwards) {
    peer.write(std::string(100, '\xff'));
    expectLoss();
    auto again = broker.welcomeNext();
    requireSuccess(initiator.echo("again"), "not sent");
    peer = again.get();
    const RawFrame request = peer.expect(FrameType::request);
    peer.send(responseFrame(request.values.token, "again"));
    BOOST_TEST((initiator.receive().uuid == "again"));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(responders, Setting)

BOOST_AUTO_TEST_CASE(aRequestRightBehindTheRegistrationIsReceived) {
    auto registered = std::async(std::launch::async, [this] {
        RawPeer peer = broker.acceptAndWelcome();
        const RawFrame registration = peer.expect(FrameType::registration);
        peer.write(encode(statusFrame(FrameType::acknowledgement, registration.values.token, 0)) +
                   encode(makeFrame(FrameType::request, 7, {"work", "do", "early", "x"})));
        return peer;
    });
    Responder responder(address, "work");
    RawPeer peer = registered.get();
    const Message request = responder.receive(1000);
    BOOST_TEST(request.status == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST((request.uuid == "early"));
    BOOST_TEST(responder.finish(request) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(peer.expect(FrameType::completion).values.token == 7U);
}

BOOST_AUTO_TEST_CASE(aRegistrationThatIsNeverAcknowledgedIsUnavailable) {
    auto welcomed = broker.welcomeNext();
    kavri_core_ipc_options options = optionsFor(address, connectWithin(100));
    kavri_core_ipc_responder* responder = nullptr;
    BOOST_TEST(kavri_core_ipc_responder_init(nullptr, &options, "work", &responder) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    BOOST_TEST(responder == nullptr);
    welcomed.get();
}

BOOST_AUTO_TEST_SUITE_END()
