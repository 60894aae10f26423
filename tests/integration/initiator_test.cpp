// Sending and receiving of an initiator, against the real broker.
#define BOOST_TEST_MODULE initiator

#include <atomic>
#include <boost/test/unit_test.hpp>
#include <map>

#include "support/with_broker.h"
#include "wire/limits.h"

using namespace kavri::tests;
using kavri::wire::fieldLimitBytes;
using kavri::wire::mebibyte;
using Clock = std::chrono::steady_clock;

BOOST_FIXTURE_TEST_SUITE(receiving, WithBroker)

BOOST_AUTO_TEST_CASE(aResponseHasAllFourFields) {
    Initiator initiator(address);
    BOOST_TEST(initiator.echo("my uuid", "my payload") == good);
    const Message response = initiator.receive(-1);
    BOOST_TEST(response.status == good);
    BOOST_TEST(response.text() == "test echo my uuid my payload");
}

BOOST_AUTO_TEST_CASE(receiveOverwritesWhatTheVariablesHeld) {
    Initiator initiator(address);
    initiator.echo("0", "new");
    char old[] = "old";
    Strings strings{old, old, old, old};
    requireSuccess(kavri_core_ipc_initiator_response_receive(initiator.get(), patienceMs,
                                                             &strings.category, &strings.identifier,
                                                             &strings.uuid, &strings.payload),
                   "no response");
    BOOST_TEST(old == "old");
    BOOST_TEST((Message(good, strings).payload == "new"));
}

BOOST_AUTO_TEST_CASE(receiveWithoutWaitingReturnsAtOnceBeforeTheBrokerAnswered) {
    Initiator initiator(address);
    broker.freeze();
    BOOST_TEST(initiator.echo("0") == good);
    const auto begin = Clock::now();
    const Message none = initiator.receive(0);
    const auto elapsed = Clock::now() - begin;
    BOOST_TEST(none.status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(none.isEmpty());
    // Less than the shortest wait that the library has of its own, on a busy machine too.
    BOOST_TEST((elapsed < std::chrono::milliseconds(kavri::wire::defaultConnectTimeoutMs)));
    broker.thaw();
    BOOST_TEST((initiator.receive().uuid == "0"));
}

BOOST_AUTO_TEST_CASE(receiveGivesUpNoEarlierThanAsked) {
    Initiator initiator(address);
    const auto begin = Clock::now();
    const Message none = initiator.receive(100);
    BOOST_TEST((Clock::now() - begin >= std::chrono::milliseconds(100)));
    BOOST_TEST(none.status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(none.isEmpty());
}

BOOST_AUTO_TEST_CASE(receiveWithoutLimitWaitsForTheResponse) {
    Initiator initiator(address);
    broker.freeze();
    initiator.echo("late");
    BlockedReceive receive(initiator);
    broker.thaw();
    BOOST_TEST((receive.result().uuid == "late"));
}

BOOST_AUTO_TEST_CASE(aBlockedReceiveTakesTheResponseToARequestSentMeanwhile) {
    Initiator initiator(address);
    BlockedReceive receive(initiator);
    BOOST_TEST(initiator.echo("meanwhile") == good);
    BOOST_TEST((receive.result().uuid == "meanwhile"));
}

BOOST_AUTO_TEST_CASE(receiveFailsWhileCallbackInstalled) {
    Initiator initiator(address);
    Inbox inbox;
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == good);
    // A receive that waits would not return, or not before the longest of the timeouts.
    for (const int timeoutMs : {-1, 0, patienceMs}) {
        const auto begin = Clock::now();
        const Message none = initiator.receive(timeoutMs);
        BOOST_TEST((Clock::now() - begin < patience));
        BOOST_TEST(none.status == KAVRI_CORE_STATUS_IPC_FAILED);
        BOOST_TEST(none.isEmpty());
    }
}

BOOST_AUTO_TEST_CASE(receiveFailsWhileCallbackInstalledThoughAResponseWaits) {
    Initiator initiator(address);
    Inbox inbox;
    initiator.onResponse(Inbox::response, &inbox);
    broker.freeze();
    initiator.echo("0");
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_FAILED);
    broker.thaw();
    BOOST_TEST(inbox.waitFor(1));
    BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_FAILED);
}

BOOST_AUTO_TEST_CASE(aBlockedReceiveFailsWhenACallbackIsInstalled) {
    Initiator initiator(address);
    BlockedReceive receive(initiator);
    Inbox inbox;
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == good);
    BOOST_TEST(receive.result().status == KAVRI_CORE_STATUS_IPC_FAILED);
}

BOOST_AUTO_TEST_CASE(tenThousandResponsesAreReceivedInOrder) {
    Initiator initiator(address);
    const std::vector<std::string> uuids = numbers(10'000);
    BOOST_TEST(initiator.echoAll(uuids) == 0U);
    BOOST_TEST((receiveUuids(initiator, uuids.size()) == uuids));
}

BOOST_AUTO_TEST_CASE(aBatchIsAnsweredInOrder) {
    Initiator initiator(address);
    const std::vector<std::string> uuids = numbers(10'000);
    std::size_t sent = 0;
    BOOST_TEST(initiator.echoBatch(uuids, "payload", sent) == good);
    BOOST_TEST(sent == uuids.size());
    BOOST_TEST((receiveUuids(initiator, sent) == uuids));
}

BOOST_AUTO_TEST_CASE(aBatchOfNothingIsSent) {
    Initiator initiator(address);
    std::size_t sent = 77;
    BOOST_TEST(initiator.echoBatch({}, "payload", sent) == good);
    BOOST_TEST(sent == 0U);
}

BOOST_AUTO_TEST_CASE(aBatchStopsAtTheRequestThatIsTooLarge) {
    Initiator initiator(address);
    const std::string longest(mebibyte, 'x');
    const std::string above(mebibyte + 1, 'x');
    const std::array<kavri_core_ipc_command, 4> commands = {{{"test", "echo", "0", "small"},
                                                             {"test", "echo", "1", longest.c_str()},
                                                             {"test", "echo", "2", above.c_str()},
                                                             {"test", "echo", "3", "small"}}};
    std::size_t sent = 77;
    BOOST_TEST(kavri_core_ipc_initiator_command_send_batch(initiator.get(), commands.data(),
                                                           commands.size(), &sent) ==
               KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(sent == 2U);
    BOOST_TEST(receiveUuids(initiator, 2) == numbers(2), boost::test_tools::per_element());
    BOOST_TEST(initiator.echoes("next"));
}

BOOST_AUTO_TEST_CASE(aCommandWithoutAnswerDoesNotDisturbTheNext) {
    Initiator initiator(address);
    for (int i = 0; i < 100; ++i) {
        initiator.send("test", "inc_repeat_count");
    }
    BOOST_TEST(initiator.echoes("asked"));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(twoInitiatorsDoNotSeeEachOthersAnswers) {
    Initiator one(address);
    Initiator other(address);
    for (const std::string& uuid : numbers(10)) {
        one.echo(uuid, "of one");
        other.echo(uuid, "of the other");
    }
    for (const std::string& uuid : numbers(10)) {
        for (auto* initiator : {&one, &other}) {
            const Message response = initiator->receive();
            BOOST_TEST((response.uuid == uuid));
            BOOST_TEST((response.payload == (initiator == &one ? "of one" : "of the other")));
        }
    }
    BOOST_TEST(one.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(other.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(severalThreadsShareOneInitiator) {
    Initiator initiator(address);
    constexpr int threadCount = 4;
    constexpr int perThread = 500;
    std::array<std::vector<Text>, threadCount> received;
    std::atomic<int> refused{0};
    {
        std::vector<std::jthread> threads;
        for (int number = 0; number < threadCount; ++number) {
            threads.emplace_back([&, number] {
                for (int i = 0; i < perThread; ++i) {
                    const auto uuid = std::to_string(number * perThread + i);
                    refused += initiator.echo(uuid) == good ? 0 : 1;
                    received[static_cast<std::size_t>(number)].push_back(initiator.receive().uuid);
                }
            });
        }
    }
    BOOST_TEST(refused == 0);
    std::map<std::string, int> times;
    for (const auto& share : received) {
        for (const Text& uuid : share) {
            ++times[uuid.value_or("none")];
        }
    }
    BOOST_TEST(times.size() == static_cast<std::size_t>(threadCount * perThread));
    BOOST_TEST(!times.contains("none"));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(sizes, WithBroker)

BOOST_AUTO_TEST_CASE(emptyFieldsArriveEmpty) {
    Initiator initiator(address);
    BOOST_TEST(initiator.echoes("", ""));
    initiator.send("", "", "", "");  // the empty category is one that nobody serves
    BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
}

BOOST_AUTO_TEST_CASE(aMillionBytesArriveAsSent) {
    Initiator initiator(address);
    std::string payload(1'000'000, ' ');
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>('!' + i * 7 % 90);
    }
    BOOST_TEST(initiator.echoAll(numbers(5), payload) == 0U);
    for (const std::string& uuid : numbers(5)) {
        const Message response = initiator.receive();
        BOOST_TEST((response.uuid == uuid));
        BOOST_TEST((response.payload == payload));
    }
}

BOOST_AUTO_TEST_CASE(bytesThatAreNoTextArriveAsSent) {
    std::string bytes;
    for (int byte = 1; byte <= 255; ++byte) {
        bytes += static_cast<char>(byte);
    }
    Initiator initiator(address);
    BOOST_TEST(initiator.echoes(bytes, bytes + bytes));
}

BOOST_AUTO_TEST_CASE(aPayloadOfTheLimitArrivesAndOneAboveIsTooLarge) {
    Initiator initiator(address);
    BOOST_TEST(initiator.echo("above", std::string(mebibyte + 1, 'x')) ==
               KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(initiator.echoes("largest", std::string(mebibyte, 'x')));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(theOtherFieldsMayHave64KiBEachAndNoMore) {
    Initiator initiator(address);
    const std::string longest(fieldLimitBytes, 'x');
    const std::string above(fieldLimitBytes + 1, 'x');
    BOOST_TEST(initiator.echoes(longest));
    BOOST_TEST(initiator.send(longest, longest, longest) == good);
    BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);

    constexpr auto tooLarge = KAVRI_CORE_STATUS_IPC_TOO_LARGE;
    BOOST_TEST(initiator.send(above, "echo") == tooLarge);
    BOOST_TEST(initiator.send("test", above) == tooLarge);
    BOOST_TEST(initiator.send("test", "echo", above) == tooLarge);
    BOOST_TEST(initiator.subscribe(above) == tooLarge);
    BOOST_TEST(initiator.unsubscribe(above) == tooLarge);
    BOOST_TEST(initiator.subscribe(longest) == good);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(manyLargePayloadsCrossInBothDirectionsAtOnce) {
    // Far more than the sockets hold, before the first is received: the broker
    // and the library must take in while they give out.
    Initiator initiator(address);
    const std::string payload(200'000, 'x');
    constexpr std::size_t count = 100;
    BOOST_TEST(initiator.echoAll(numbers(count), payload) == 0U);
    std::vector<std::string> received;
    for (std::size_t i = 0; i < count; ++i) {
        const Message response = initiator.receive();
        received.push_back(response.payload == payload ? response.uuid.value_or("none") : "cut");
    }
    BOOST_TEST((received == numbers(count)));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_CASE(theConfiguredPayloadLimitIsTheOneThatHolds) {
    WithBroker limited({.testService = true, .config = "[limits]\npayload_bytes = 10"});
    Initiator initiator(limited.address);
    BOOST_TEST(initiator.echo("above", std::string(11, 'x')) == KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(initiator.echoes("largest", std::string(10, 'x')));
}

BOOST_AUTO_TEST_CASE(aConfiguredLargerPayloadArrives) {
    WithBroker generous({.testService = true, .config = "[limits]\npayload_bytes = 5000000"});
    BOOST_TEST(Initiator(generous.address).echoes("0", std::string(5'000'000, 'x')));
}
