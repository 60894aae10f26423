// What an initiator's functions refuse, and what an older or a later program may give them.
#define BOOST_TEST_MODULE initiatorArguments

#include <atomic>
#include <boost/test/unit_test.hpp>
#include <climits>
#include <cstddef>

#include "support/with_broker.h"

using namespace kavri::tests;

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
    BOOST_TEST(initiator.echoes("good"));
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
    BOOST_TEST(initiator.echoes("good"));
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
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, &options, &initiator) == good);
    BOOST_TEST(haveFurtherThreads(0));  // none to call it from
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == good);
    BOOST_TEST(!called);
}

BOOST_AUTO_TEST_CASE(membersThatAnOlderProgramHasAreReadThoughLaterOnesAreMissing) {
    kavri_core_ipc_options options = optionsFor(address);
    options.connectionCallback = [](const kavri_core_ipc_connection_change*, void* called) {
        static_cast<std::atomic<bool>*>(called)->store(true);
    };
    std::atomic<bool> called{false};
    options.connectionContext = &called;
    options.outcomeContext = &called;  // would be refused without its callback
    options.sizeBytes = offsetof(kavri_core_ipc_options, outcomeCallback);
    kavri_core_ipc_initiator* initiator = nullptr;
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, &options, &initiator) == good);
    BOOST_TEST(eventually([&] { return called.load(); }));
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == good);
    options.sizeBytes = sizeof options;
    BOOST_TEST(initStatus(options) == KAVRI_CORE_STATUS_INVALID_ARGUMENT);
}

BOOST_AUTO_TEST_CASE(optionsOfALaterVersionAreAccepted) {
    struct LaterOptions {
        kavri_core_ipc_options known;
        std::array<char, 64> further;
    } options{optionsFor(address), {}};
    options.known.sizeBytes = sizeof options;
    kavri_core_ipc_initiator* initiator = nullptr;
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, &options, &initiator) == good);
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == good);
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
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, nullptr, &initiator) == good);
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == good);
    ::setenv("KAVRI_BROKER", std::string(folder / "nowhere.sock").c_str(), 1);
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, nullptr, &initiator) ==
               KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE);
    ::unsetenv("KAVRI_BROKER");
}

BOOST_AUTO_TEST_SUITE_END()
