// The life of the library and of what is made with it: init and deinit in every
// order that is allowed, and cycles without end that leave nothing behind.
#define BOOST_TEST_MODULE lifecycle

#include <malloc.h>

#include <boost/test/unit_test.hpp>

#include "process/temporary_folder.h"
#include "support/client.h"
#include "support/service_process.h"

using namespace kavri::tests;

namespace {

struct Setting {
    kavri::process::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
    BrokerProcess broker{address, {.testService = true}};
    kavri_core_ipc_options options = optionsFor(address);
};

void ignoreEvent(char** category, char** identifier, char** payload, void*) {
    for (char** string : {category, identifier, payload}) {
        std::free(*string);
    }
}

// One life of the library, with every kind of use in it.
void liveOnce(kavri_core_ipc_options& options) {
    kavri_core_logging_cookie log = nullptr;
    kavri_core_ipc_initiator* made = nullptr;
    requireSuccess(kavri_core_init(), "init");
    requireSuccess(kavri_core_logging_init("lifecycle", &log), "logging_init");
    requireSuccess(kavri_core_ipc_initiator_init(log, &options, &made), "initiator_init");
    requireSuccess(kavri_core_ipc_initiator_event_receive_callback(made, ignoreEvent, nullptr),
                   "event_receive_callback");
    requireSuccess(kavri_core_ipc_initiator_event_subscribe(made, "test"), "event_subscribe");
    for (const char* command : {"echo", "event", "inc_repeat_count", "echo"}) {
        requireSuccess(kavri_core_ipc_initiator_command_send(made, "test", command, "7", "x"),
                       command);
    }
    // The second answer is left for the end to drop.
    Strings strings;
    requireSuccess(
        kavri_core_ipc_initiator_response_receive(made, -1, &strings.category, &strings.identifier,
                                                  &strings.uuid, &strings.payload),
        "response_receive");
    const Message response(good, strings);
    requireSuccess(kavri_core_ipc_deinit(made), "deinit of the initiator");
    requireSuccess(kavri_core_logging_deinit(log), "logging_deinit");
    requireSuccess(kavri_core_deinit(), "deinit");
    if (response.uuid != "7") {
        throw std::runtime_error("another response");
    }
}

}  // namespace

BOOST_AUTO_TEST_CASE(callsBeforeInitAreRefused) {
    kavri_core_logging_cookie log = nullptr;
    kavri_core_ipc_initiator* initiator = nullptr;
    kavri_core_ipc_responder* responder = nullptr;
    BOOST_TEST(kavri_core_deinit() == KAVRI_CORE_STATUS_NOT_INITIALISED);
    BOOST_TEST(kavri_core_logging_init("early", &log) == KAVRI_CORE_STATUS_NOT_INITIALISED);
    BOOST_TEST(kavri_core_ipc_initiator_init(nullptr, nullptr, &initiator) ==
               KAVRI_CORE_STATUS_NOT_INITIALISED);
    BOOST_TEST(kavri_core_ipc_responder_init(nullptr, nullptr, "test", &responder) ==
               KAVRI_CORE_STATUS_NOT_INITIALISED);
    BOOST_TEST(log == nullptr);
    BOOST_TEST(initiator == nullptr);
    BOOST_TEST(responder == nullptr);
}

BOOST_AUTO_TEST_CASE(initCallsNest) {
    kavri_core_logging_cookie log = nullptr;
    BOOST_TEST(kavri_core_init() == good);
    BOOST_TEST(kavri_core_init() == good);
    BOOST_TEST(kavri_core_deinit() == good);
    BOOST_TEST(kavri_core_logging_init("nested", &log) == good);
    BOOST_TEST(kavri_core_logging_deinit(log) == good);
    BOOST_TEST(kavri_core_deinit() == good);
    BOOST_TEST(kavri_core_deinit() == KAVRI_CORE_STATUS_NOT_INITIALISED);
    BOOST_TEST(kavri_core_logging_init("late", &log) == KAVRI_CORE_STATUS_NOT_INITIALISED);
}

BOOST_FIXTURE_TEST_CASE(anInitiatorOutlivesItsLoggingContextAndTheLibrary, Setting) {
    kavri_core_init();
    kavri_core_logging_cookie log = nullptr;
    kavri_core_ipc_initiator* initiator = nullptr;
    requireSuccess(kavri_core_logging_init("outlived", &log), "no logging context");
    requireSuccess(kavri_core_ipc_initiator_init(log, &options, &initiator), "no initiator");
    BOOST_TEST(kavri_core_logging_deinit(log) == good);
    BOOST_TEST(kavri_core_deinit() == good);

    BOOST_TEST(kavri_core_ipc_initiator_command_send(initiator, "test", "echo", "0", "still") ==
               good);
    Strings strings;
    const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
        initiator, patienceMs, &strings.category, &strings.identifier, &strings.uuid,
        &strings.payload);
    BOOST_TEST((Message(status, strings).payload == "still"));
    BOOST_TEST(kavri_core_ipc_deinit(initiator) == good);
}

BOOST_FIXTURE_TEST_CASE(eightCyclesEachStartClean, Setting) {
    for (int cycle = 0; cycle < 8; ++cycle) {
        liveOnce(options);
        const Library library;
        Initiator next(address);
        Inbox inbox;
        next.onEvent(Inbox::event, &inbox);
        next.send("test", "event");
        next.echo("mine");
        // Neither the answer nor the subscription of the one before is there.
        BOOST_TEST((next.receive().uuid == "mine"));
        BOOST_TEST(next.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
        BOOST_TEST(inbox.count() == 0U);
    }
}

BOOST_FIXTURE_TEST_CASE(fiveHundredCyclesLeaveNothingBehind, Setting) {
    ::setenv("KAVRI_LOG", "off", 0);
    // What is made once and kept, such as the allocator's own caches, is made
    // in the first cycles.
    constexpr int warmUp = 50;
    for (int cycle = 0; cycle < warmUp; ++cycle) {
        liveOnce(options);
    }
    BOOST_TEST(haveFurtherThreads(0));
    const std::size_t descriptorsBefore = openDescriptors();
    [[maybe_unused]] const std::size_t bytesBefore = mallinfo2().uordblks;

    for (int cycle = 0; cycle < 500; ++cycle) {
        liveOnce(options);
    }

    // Before any check: a check allocates.
    [[maybe_unused]] const std::size_t bytesAfter = mallinfo2().uordblks;
    BOOST_TEST(haveFurtherThreads(0));
    BOOST_TEST(openDescriptors() == descriptorsBefore);
#ifndef KAVRI_SANITIZED  // there the leak checker looks, and the allocator is another
    // The least that can be lost in each cycle is one block of 16 bytes.
    BOOST_TEST(bytesAfter < bytesBefore + std::size_t{500} * 16);
#endif
}

BOOST_FIXTURE_TEST_CASE(fiveHundredCyclesLeaveNothingInTheBroker, Setting) {
    liveOnce(options);
    const auto idle = broker.descriptors();
    for (int cycle = 0; cycle < 500; ++cycle) {
        const Library library;
        Initiator initiator(address);
        initiator.echo("0");
    }
    BOOST_TEST(eventually([&] { return broker.descriptors() <= idle; }));
}
