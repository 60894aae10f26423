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
        const auto status = initStatus(optionsFor(address, connectWithin(connectTimeoutMs)));
        played.get();
        return status;
    }
    // The same where the broker says this, and closes or not.
    kavri_core_status initAgainstBytes(const std::string& bytes, bool closes = false) {
        return initAgainst([&](RawPeer& peer) {
            peer.expect(FrameType::hello);
            peer.write(bytes);
            if (closes) {
                peer.close();
            }
        });
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
        peer.send(responseFrame(ask("true"), "true"));
        BOOST_TEST((initiator.receive().uuid == "true"));
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
        BOOST_TEST(initAgainstBytes(encode(goodbyeFrame(status))) == status);
    }
}

BOOST_AUTO_TEST_CASE(aRefusalWithoutAReasonIsNoSuccess) {
    BOOST_TEST(initAgainstBytes(encode(goodbyeFrame(good))) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
}

BOOST_AUTO_TEST_CASE(whatIsNoWelcomeOfThisVersionIsIncompatible) {
    for (const std::string& bytes :
         {encode(FakeBroker::welcomeFrame("", wire::protocolVersion + 1)),
          encode(FakeBroker::welcomeFrame("payload_bytes=many\n")), encode(responseFrame(1, "0")),
          std::string("220 mail.example.org ESMTP ready, and what can I do for you\r\n")}) {
        BOOST_TEST(initAgainstBytes(bytes) == KAVRI_CORE_STATUS_IPC_INCOMPATIBLE);
    }
}

BOOST_AUTO_TEST_CASE(aConnectionClosedBeforeTheEndOfTheWelcomeIsUnavailable) {
    const std::string welcome = encode(FakeBroker::welcomeFrame("payload_bytes=1\n"));
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{1}, std::size_t{40}, welcome.size() - 1}) {
        BOOST_TEST(initAgainstBytes(welcome.substr(0, length), true) ==
                   KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    }
}

BOOST_AUTO_TEST_CASE(noWelcomeInTimeIsUnavailable) {
    const auto begin = Clock::now();
    BOOST_TEST(initAgainst([](RawPeer& peer) { peer.expect(FrameType::hello); }, 100) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    BOOST_TEST((Clock::now() - begin >= std::chrono::milliseconds(100)));
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
    peer.send(statusFrame(FrameType::notice, token, good));
    const Message received = initiator.receive(-1);
    BOOST_TEST(received.status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
    BOOST_TEST(received.isEmpty());
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
    subscribe("test");
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
    BOOST_TEST(receiveUuids(initiator, 100) == numbers(100), boost::test_tools::per_element());
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(malformed, Connected)

BOOST_AUTO_TEST_CASE(whatIsNoResponseCostsTheConnection) {
    const std::string right = encode(responseFrame(1, "0"));
    std::string contradictory = right;
    contradictory[0] = static_cast<char>(contradictory[0] + 1);
    const std::string above(wire::mebibyte + 1, 'x');
    std::string largeWithNul(100'000, 'x');
    largeWithNul[90'000] = '\0';
    for (const std::string& bytes :
         {std::string(100, '\xff'), contradictory,
          encode(responseFrame(1, std::string_view("a\0b", 3))),
          encode(responseFrame(1, "0", largeWithNul)),
          encode(makeFrame(FrameType::response, 1, {.category = "test", .identifier = "echo"})),
          // Its header is enough: the rest is neither waited for nor read.
          encode(responseFrame(1, "0", above)).substr(0, wire::headerBytes)}) {
        Connected each;
        each.ask();
        each.peer.write(bytes);
        each.expectLoss();
    }
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
    BlockedReceive receive(initiator);
    peer.write(std::string(100, '\0'));
    BOOST_TEST(receive.result().status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
}

BOOST_AUTO_TEST_CASE(responsesInFrontOfGarbageAreReceived) {
    const std::uint64_t token = ask("good");
    peer.write(encode(responseFrame(token, "good")) + std::string(100, '\xff'));
    BOOST_TEST((initiator.receive(-1).uuid == "good"));
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
}

BOOST_AUTO_TEST_CASE(responsesThatArrivedAreReceivedThoughASendFindsTheBrokerGone) {
    const std::uint64_t first = ask("first");
    const std::uint64_t second = ask("second");
    peer.write(encode(responseFrame(first, "first")) + encode(responseFrame(second, "second")));
    BOOST_TEST((initiator.receive(-1).uuid == "first"));
    peer.close();
    BOOST_TEST(initiator.echo("third") != good);
    BOOST_TEST((initiator.receive(-1).uuid == "second"));
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
    BOOST_TEST(request.status == good);
    BOOST_TEST((request.uuid == "early"));
    BOOST_TEST(responder.finish(request) == good);
    BOOST_TEST(peer.expect(FrameType::completion).values.token == 7U);
}

BOOST_AUTO_TEST_CASE(aRegistrationThatIsNeverAcknowledgedIsUnavailable) {
    auto welcomed = broker.welcomeNext();
    BOOST_TEST(initStatus(optionsFor(address, connectWithin(100)), "work") ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    welcomed.get();
}

BOOST_AUTO_TEST_SUITE_END()
