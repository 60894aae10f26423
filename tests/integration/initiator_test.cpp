// The initiator's arguments, sending and receiving, against the real broker.
#define BOOST_TEST_MODULE initiator

#include <atomic>
#include <boost/test/unit_test.hpp>
#include <cstddef>
#include <map>

#include "process/temporary_folder.h"
#include "support/with_broker.h"
#include "wire/limits.h"

using namespace kavri::tests;
using kavri::wire::fieldLimitBytes;
using kavri::wire::mebibyte;
using Clock = std::chrono::steady_clock;

namespace {

kavri_core_status initStatus(kavri_core_ipc_options options) {
    kavri_core_ipc_initiator* initiator = nullptr;
    const kavri_core_status status = kavri_core_ipc_initiator_init(nullptr, &options, &initiator);
    BOOST_TEST((initiator != nullptr) == (status == KAVRI_CORE_STATUS_NO_ERROR));
    if (initiator != nullptr) {
        kavri_core_ipc_deinit(initiator);
    }
    return status;
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(arguments, WithBroker)

BOOST_AUTO_TEST_CASE(nullIsRefusedByTheFunctionsOfTheLibrary) {
    kavri_core_logging_cookie log = nullptr;
    constexpr auto refused = KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    BOOST_TEST(kavri_core_logging_init(nullptr, &log) == refused);
    BOOST_TEST(kavri_core_logging_init("name", nullptr) == refused);
    BOOST_TEST(kavri_core_logging_deinit(nullptr) == refused);
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, nullptr, nullptr) == refused);
    BOOST_TEST(kavri_core_ipc_deinit(nullptr) == refused);
    BOOST_TEST(log == nullptr);
}

BOOST_AUTO_TEST_CASE(aNullInitiatorIsRefused) {
    Strings strings;
    Inbox inbox;
    constexpr auto refused = KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    BOOST_TEST(kavri_core_ipc_initiator_command_send(nullptr, "a", "b", "c", "d") == refused);
    BOOST_TEST(kavri_core_ipc_initiator_response_receive(nullptr, 0, &strings.category,
                                                         &strings.identifier, &strings.uuid,
                                                         &strings.payload) == refused);
    BOOST_TEST(kavri_core_ipc_initiator_response_receive_callback(nullptr, Inbox::response,
                                                                  &inbox) == refused);
    BOOST_TEST(kavri_core_ipc_initiator_event_receive_callback(nullptr, Inbox::event, &inbox) ==
               refused);
    BOOST_TEST(kavri_core_ipc_initiator_event_subscribe(nullptr, "test") == refused);
    BOOST_TEST(kavri_core_ipc_initiator_event_unsubscribe(nullptr, "test") == refused);
}

BOOST_AUTO_TEST_CASE(aNullFieldIsRefusedAndNothingIsSent) {
    Initiator initiator(address);
    for (std::size_t missing = 0; missing < 4; ++missing) {
        std::array<const char*, 4> fields = {"test", "echo", "0", "payload"};
        fields[missing] = nullptr;
        BOOST_TEST(kavri_core_ipc_initiator_command_send(initiator.get(), fields[0], fields[1],
                                                         fields[2], fields[3]) ==
                   KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    }
    initiator.echo("good");
    BOOST_TEST((initiator.receive().uuid == "good"));
}

BOOST_AUTO_TEST_CASE(aBatchWithANullIsRefusedAndNothingIsSent) {
    Initiator initiator(address);
    const std::array<kavri_core_ipc_command, 2> commands = {
        {{"test", "echo", "0", "payload"}, {"test", "echo", nullptr, "payload"}}};
    std::size_t sent = 77;
    constexpr auto refused = KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    const auto batch = kavri_core_ipc_initiator_command_send_batch;
    BOOST_TEST(batch(nullptr, commands.data(), 1, &sent) == refused);
    BOOST_TEST(batch(initiator.get(), nullptr, 1, &sent) == refused);
    BOOST_TEST(batch(initiator.get(), commands.data(), 1, nullptr) == refused);
    BOOST_TEST(batch(initiator.get(), commands.data(), 2, &sent) == refused);
    BOOST_TEST(sent == 0U);
    initiator.echo("good");
    BOOST_TEST((initiator.receive().uuid == "good"));
}

BOOST_AUTO_TEST_CASE(aNullVariableIsRefusedAndTheResponseStays) {
    Initiator initiator(address);
    initiator.echo("kept");
    for (std::size_t missing = 0; missing < 4; ++missing) {
        Strings strings;
        std::array<char**, 4> variables = {&strings.category, &strings.identifier, &strings.uuid,
                                           &strings.payload};
        variables[missing] = nullptr;
        BOOST_TEST(kavri_core_ipc_initiator_response_receive(
                       initiator.get(), patienceMs, variables[0], variables[1], variables[2],
                       variables[3]) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
        BOOST_TEST(strings.areUntouched());
    }
    BOOST_TEST((initiator.receive().uuid == "kept"));
}

BOOST_AUTO_TEST_CASE(aTimeoutBelowMinusOneIsRefused) {
    Initiator initiator(address);
    BOOST_TEST(initiator.receive(-2).status == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST(initiator.receive(INT_MIN).status == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
}

BOOST_AUTO_TEST_CASE(aContextWithoutACallbackIsRefused) {
    Initiator initiator(address);
    int context = 0;
    BOOST_TEST(initiator.onResponse(nullptr, &context) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    BOOST_TEST(initiator.onEvent(nullptr, &context) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
}

BOOST_AUTO_TEST_CASE(noCategoryOrAnEmptyOneCannotBeSubscribedTo) {
    Initiator initiator(address);
    for (const char* category : {static_cast<const char*>(nullptr), ""}) {
        BOOST_TEST(kavri_core_ipc_initiator_event_subscribe(initiator.get(), category) ==
                   KAVRI_CORE_STATUS_INVALID_ARGUMENT);
        BOOST_TEST(kavri_core_ipc_initiator_event_unsubscribe(initiator.get(), category) ==
                   KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    }
}

BOOST_AUTO_TEST_CASE(optionsSmallerThanAnyKnownAreRefused) {
    kavri_core_ipc_options options = optionsFor(address);
    constexpr std::size_t firstVersion = offsetof(kavri_core_ipc_options, connectionCallback);
    for (const std::size_t size : {std::size_t{0}, firstVersion - 1}) {
        options.sizeBytes = size;
        BOOST_TEST(initStatus(options) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
    }
}

// What lies behind the end of an older program's options is not the library's to read.
BOOST_AUTO_TEST_CASE(membersThatAnOlderProgramDoesNotKnowAreNotRead) {
    kavri_core_ipc_options options = optionsFor(address);
    options.connectionCallback = [](const kavri_core_ipc_connection_change*, void* called) {
        static_cast<std::atomic<bool>*>(called)->store(true);
    };
    std::atomic<bool> called{false};
    options.connectionContext = &called;
    options.sizeBytes = offsetof(kavri_core_ipc_options, connectionCallback);
    kavri_core_ipc_initiator* initiator = nullptr;
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, &options, &initiator) ==
               KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(!called);
}

BOOST_AUTO_TEST_CASE(optionsOfALaterVersionAreAccepted) {
    struct LaterOptions {
        kavri_core_ipc_options known;
        std::array<char, 64> further;
    } options{optionsFor(address), {}};
    options.known.sizeBytes = sizeof options;
    kavri_core_ipc_initiator* initiator = nullptr;
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, &options, &initiator) ==
               KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == KAVRI_CORE_STATUS_NO_ERROR);
}

BOOST_AUTO_TEST_CASE(anAddressThatCannotBeOneIsRefused) {
    BOOST_TEST(initStatus(optionsFor("")) == KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID);
    const std::string tooLong = "/" + std::string(107, 'x');
    BOOST_TEST(initStatus(optionsFor(tooLong)) == KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID);
    const std::string longest = "/" + std::string(106, 'x');
    BOOST_TEST(initStatus(optionsFor(longest)) == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
}

BOOST_AUTO_TEST_CASE(whereNobodyListensTheBrokerIsUnavailable) {
    const std::string nowhere = folder / "nowhere.sock";
    BOOST_TEST(initStatus(optionsFor(nowhere)) == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
}

BOOST_AUTO_TEST_CASE(withoutOptionsTheEnvironmentNamesTheBroker) {
    kavri_core_ipc_initiator* initiator = nullptr;
    ::setenv("KAVRI_BROKER", address.c_str(), 1);
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, nullptr, &initiator) ==
               KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == KAVRI_CORE_STATUS_NO_ERROR);
    ::setenv("KAVRI_BROKER", std::string(folder / "nowhere.sock").c_str(), 1);
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, nullptr, &initiator) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    ::unsetenv("KAVRI_BROKER");
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(receiving, WithBroker)

BOOST_AUTO_TEST_CASE(aResponseHasAllFourFields) {
    Initiator initiator(address);
    BOOST_TEST(initiator.echo("my uuid", "my payload") == KAVRI_CORE_STATUS_NO_ERROR);
    const Message response = initiator.receive(-1);
    BOOST_TEST(response.status == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST((response.category == "test"));
    BOOST_TEST((response.identifier == "echo"));
    BOOST_TEST((response.uuid == "my uuid"));
    BOOST_TEST((response.payload == "my payload"));
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
    BOOST_TEST((Message(KAVRI_CORE_STATUS_NO_ERROR, strings).payload == "new"));
}

BOOST_AUTO_TEST_CASE(receiveWithoutWaitingFindsNothing) {
    Initiator initiator(address);
    Strings strings;
    BOOST_TEST(kavri_core_ipc_initiator_response_receive(
                   initiator.get(), 0, &strings.category, &strings.identifier, &strings.uuid,
                   &strings.payload) == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(strings.areUntouched());
}

BOOST_AUTO_TEST_CASE(receiveWithoutWaitingReturnsAtOnceBeforeTheBrokerAnswered) {
    Initiator initiator(address);
    broker.freeze();
    BOOST_TEST(initiator.echo("0") == KAVRI_CORE_STATUS_NO_ERROR);
    Strings strings;
    const auto begin = Clock::now();
    const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
        initiator.get(), 0, &strings.category, &strings.identifier, &strings.uuid,
        &strings.payload);
    const auto elapsed = Clock::now() - begin;
    BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(strings.areUntouched());
    // Less than the shortest wait that the library has of its own, on a busy machine too.
    BOOST_TEST((elapsed < std::chrono::milliseconds(kavri::wire::defaultConnectTimeoutMs)));
    broker.thaw();
    BOOST_TEST((initiator.receive().uuid == "0"));
}

BOOST_AUTO_TEST_CASE(receiveGivesUpNoEarlierThanAsked) {
    Initiator initiator(address);
    Strings strings;
    const auto begin = Clock::now();
    const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
        initiator.get(), 100, &strings.category, &strings.identifier, &strings.uuid,
        &strings.payload);
    BOOST_TEST((Clock::now() - begin >= std::chrono::milliseconds(100)));
    BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(strings.areUntouched());
}

BOOST_AUTO_TEST_CASE(receiveWithoutLimitWaitsForTheResponse) {
    Initiator initiator(address);
    broker.freeze();
    initiator.echo("late");
    Text received;
    BlockedCall receive([&] { received = initiator.receive(-1).uuid; });
    BOOST_TEST(receive.sleeps());
    broker.thaw();
    receive.join();
    BOOST_TEST((received == "late"));
}

BOOST_AUTO_TEST_CASE(aBlockedReceiveTakesTheResponseToARequestSentMeanwhile) {
    Initiator initiator(address);
    Text received;
    BlockedCall receive([&] { received = initiator.receive(-1).uuid; });
    BOOST_TEST(receive.sleeps());
    BOOST_TEST(initiator.echo("meanwhile") == KAVRI_CORE_STATUS_NO_ERROR);
    receive.join();
    BOOST_TEST((received == "meanwhile"));
}

BOOST_AUTO_TEST_CASE(receiveFailsWhileCallbackInstalled) {
    Initiator initiator(address);
    Inbox inbox;
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == KAVRI_CORE_STATUS_NO_ERROR);
    // A receive that waits would not return, or not before the longest of the timeouts.
    for (const int timeoutMs : {-1, 0, patienceMs}) {
        Strings strings;
        const auto begin = Clock::now();
        const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
            initiator.get(), timeoutMs, &strings.category, &strings.identifier, &strings.uuid,
            &strings.payload);
        BOOST_TEST((Clock::now() - begin < patience));
        BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_FAILED);
        BOOST_TEST(strings.areUntouched());
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
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    BlockedCall receive([&] { status = initiator.receive(-1).status; });
    BOOST_TEST(receive.sleeps());
    Inbox inbox;
    BOOST_TEST(initiator.onResponse(Inbox::response, &inbox) == KAVRI_CORE_STATUS_NO_ERROR);
    receive.join();
    BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_FAILED);
}

BOOST_AUTO_TEST_CASE(tenThousandResponsesAreReceivedInOrder) {
    Initiator initiator(address);
    constexpr std::size_t count = 10'000;
    std::size_t refused = 0;
    for (const std::string& uuid : numbers(count)) {
        refused += initiator.echo(uuid) == KAVRI_CORE_STATUS_NO_ERROR ? 0 : 1;
    }
    BOOST_TEST(refused == 0U);
    std::vector<std::string> received;
    for (std::size_t i = 0; i < count; ++i) {
        received.push_back(initiator.receive().uuid.value_or("none"));
    }
    BOOST_TEST((received == numbers(count)));
}

BOOST_AUTO_TEST_CASE(aBatchIsAnsweredInOrder) {
    Initiator initiator(address);
    std::size_t sent = 0;
    BOOST_TEST(initiator.echoBatch(numbers(10'000), "payload", sent) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(sent == 10'000U);
    std::vector<std::string> received;
    for (std::size_t i = 0; i < sent; ++i) {
        received.push_back(initiator.receive().uuid.value_or("none"));
    }
    BOOST_TEST((received == numbers(10'000)));
}

BOOST_AUTO_TEST_CASE(aBatchOfNothingIsSent) {
    Initiator initiator(address);
    std::size_t sent = 77;
    BOOST_TEST(initiator.echoBatch({}, "payload", sent) == KAVRI_CORE_STATUS_NO_ERROR);
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
    BOOST_TEST((initiator.receive().uuid == "0"));
    BOOST_TEST((initiator.receive().uuid == "1"));
    initiator.echo("next");
    BOOST_TEST((initiator.receive().uuid == "next"));
}

BOOST_AUTO_TEST_CASE(aCommandWithoutAnswerDoesNotDisturbTheNext) {
    Initiator initiator(address);
    for (int i = 0; i < 100; ++i) {
        initiator.send("test", "inc_repeat_count");
    }
    initiator.echo("asked");
    BOOST_TEST((initiator.receive().uuid == "asked"));
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
                    refused += initiator.echo(uuid) == KAVRI_CORE_STATUS_NO_ERROR ? 0 : 1;
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
    initiator.echo("", "");
    const Message response = initiator.receive();
    BOOST_TEST((response.uuid == ""));
    BOOST_TEST((response.payload == ""));
    initiator.send("", "", "", "");  // the empty category is one that nobody serves
    BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
}

BOOST_AUTO_TEST_CASE(aMillionBytesArriveAsSent) {
    Initiator initiator(address);
    std::string payload(1'000'000, ' ');
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>('!' + i * 7 % 90);
    }
    for (const std::string& uuid : numbers(5)) {
        BOOST_TEST(initiator.echo(uuid, payload) == KAVRI_CORE_STATUS_NO_ERROR);
    }
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
    initiator.echo(bytes, bytes + bytes);
    const Message response = initiator.receive();
    BOOST_TEST((response.uuid == bytes));
    BOOST_TEST((response.payload == bytes + bytes));
}

BOOST_AUTO_TEST_CASE(aPayloadOfTheLimitArrivesAndOneAboveIsTooLarge) {
    Initiator initiator(address);
    BOOST_TEST(initiator.echo("above", std::string(mebibyte + 1, 'x')) ==
               KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    const std::string largest(mebibyte, 'x');
    BOOST_TEST(initiator.echo("largest", largest) == KAVRI_CORE_STATUS_NO_ERROR);
    const Message response = initiator.receive();
    BOOST_TEST((response.uuid == "largest"));
    BOOST_TEST((response.payload == largest));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(theOtherFieldsMayHave64KiBEachAndNoMore) {
    Initiator initiator(address);
    const std::string longest(fieldLimitBytes, 'x');
    const std::string above(fieldLimitBytes + 1, 'x');
    BOOST_TEST(initiator.echo(longest) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST((initiator.receive().uuid == longest));
    BOOST_TEST(initiator.send(longest, longest, longest) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);

    constexpr auto tooLarge = KAVRI_CORE_STATUS_IPC_TOO_LARGE;
    BOOST_TEST(initiator.send(above, "echo") == tooLarge);
    BOOST_TEST(initiator.send("test", above) == tooLarge);
    BOOST_TEST(initiator.send("test", "echo", above) == tooLarge);
    BOOST_TEST(initiator.subscribe(above) == tooLarge);
    BOOST_TEST(initiator.unsubscribe(above) == tooLarge);
    BOOST_TEST(initiator.subscribe(longest) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(manyLargePayloadsCrossInBothDirectionsAtOnce) {
    // Far more than the sockets hold, before the first is received: the broker
    // and the library must take in while they give out.
    Initiator initiator(address);
    const std::string payload(200'000, 'x');
    constexpr std::size_t count = 100;
    std::size_t refused = 0;
    for (const std::string& uuid : numbers(count)) {
        refused += initiator.echo(uuid, payload) == KAVRI_CORE_STATUS_NO_ERROR ? 0 : 1;
    }
    BOOST_TEST(refused == 0U);
    std::vector<std::string> received;
    for (std::size_t i = 0; i < count; ++i) {
        const Message response = initiator.receive();
        received.push_back(response.payload == payload ? response.uuid.value_or("none") : "cut");
    }
    BOOST_TEST((received == numbers(count)));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_CASE(theConfiguredPayloadLimitIsTheOneThatHolds) {
    kavri::process::TemporaryFolder folder;
    const std::string address = folder / "broker.sock";
    BrokerProcess broker(address, {.testService = true, .config = "[limits]\npayload_bytes = 10"});
    Library library;
    Initiator initiator(address);
    BOOST_TEST(initiator.echo("above", std::string(11, 'x')) == KAVRI_CORE_STATUS_IPC_TOO_LARGE);
    BOOST_TEST(initiator.echo("largest", std::string(10, 'x')) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST((initiator.receive().uuid == "largest"));
}

BOOST_AUTO_TEST_CASE(aConfiguredLargerPayloadArrives) {
    kavri::process::TemporaryFolder folder;
    const std::string address = folder / "broker.sock";
    BrokerProcess broker(address,
                         {.testService = true, .config = "[limits]\npayload_bytes = 5000000"});
    Library library;
    Initiator initiator(address);
    const std::string payload(5'000'000, 'x');
    BOOST_TEST(initiator.echo("0", payload) == KAVRI_CORE_STATUS_NO_ERROR);
    BOOST_TEST((initiator.receive().payload == payload));
}
