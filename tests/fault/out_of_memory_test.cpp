// Memory runs out while something is made or ended: a call fails with OUT_OF_RESOURCES or does
// its work, and nothing is left behind.
#define BOOST_TEST_MODULE outOfMemory

#include "support/out_of_memory.h"

using namespace kavri::tests;

BOOST_FIXTURE_TEST_SUITE(life, WithoutMemory)

BOOST_AUTO_TEST_CASE(ofALoggingContext) {
    const long failures = Attempts::run([](Attempts& attempts) {
        kavri_core_logging_cookie cookie = nullptr;
        const kavri_core_status status =
            attempts.calling([&] { return kavri_core_logging_init("a long name", &cookie); });
        BOOST_TEST((cookie != nullptr) == (status == good));
        if (cookie != nullptr) {
            kavri_core_logging_deinit(cookie);
        }
    });
    BOOST_TEST(failures > 2);
}

BOOST_AUTO_TEST_CASE(ofAnInitiator) {
    Counts counts;
    for (const kavri_core_ipc_options& chosen : {kavri_core_ipc_options{}, watched(counts)}) {
        const Remains remains;
        const long failures = Attempts::run([&](Attempts& attempts) {
            kavri_core_ipc_options options = optionsFor(address, chosen);
            kavri_core_ipc_initiator* initiator = nullptr;
            const kavri_core_status status = attempts.calling(
                [&] { return kavri_core_ipc_initiator_init(nullptr, &options, &initiator); });
            BOOST_TEST((initiator != nullptr) == (status == good));
            if (initiator != nullptr) {
                BOOST_TEST(kavri_core_ipc_deinit(initiator) == good);
            }
            remains.expectSame();
        });
        BOOST_TEST(failures > 10);
    }
}

BOOST_AUTO_TEST_CASE(ofAResponder) {
    Counts counts;
    for (const kavri_core_ipc_options& chosen : {kavri_core_ipc_options{}, watched(counts)}) {
        const Remains remains;
        const std::size_t idle = broker.descriptors();
        const long failures = Attempts::run([&](Attempts& attempts) {
            kavri_core_ipc_options options = optionsFor(address, chosen);
            kavri_core_ipc_responder* responder = nullptr;
            const kavri_core_status status = attempts.calling([&] {
                return kavri_core_ipc_responder_init(nullptr, &options, longCategory.c_str(),
                                                     &responder);
            });
            BOOST_TEST((responder != nullptr) == (status == good));
            if (responder != nullptr) {
                BOOST_TEST(kavri_core_ipc_responder_deinit(responder) == good);
            }
            remains.expectSame();
            // Another may serve the category, as soon as the broker has seen the end.
            BOOST_TEST(eventually([&] { return broker.descriptors() == idle; }));
        });
        BOOST_TEST(failures > 10);
    }
}

BOOST_AUTO_TEST_CASE(endsWithoutMemory) {
    const Remains remains;
    Counts counts;
    Initiator initiator(address, watched(counts));
    BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
    BOOST_TEST(initiator.subscribe("test") == good);
    BOOST_TEST(initiator.echo("0") == good);
    Responder responder(address, longCategory);
    Initiator other(address);
    failingHere.begin(1, FailingAllocations::all);
    failingElsewhere.begin(1, FailingAllocations::all);
    const kavri_core_status ended = kavri_core_ipc_deinit(initiator.release());
    const kavri_core_status otherEnded = kavri_core_ipc_deinit(other.release());
    const kavri_core_status responderEnded = kavri_core_ipc_responder_deinit(responder.release());
    failingHere.end();
    failingElsewhere.end();
    BOOST_TEST(ended == good);
    BOOST_TEST(otherEnded == good);
    BOOST_TEST(responderEnded == good);
    remains.expectSame();
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_CASE(nothingLeaks, WithoutMemory) {
    const auto live = [&] {
        Attempts::run([&](Attempts& attempts) {
            Counts counts;
            kavri_core_ipc_options options = optionsFor(address, watched(counts));
            kavri_core_ipc_initiator* made = nullptr;
            attempts.calling([&] {
                kavri_core_status status = kavri_core_ipc_initiator_init(nullptr, &options, &made);
                if (status == good) {
                    status = kavri_core_ipc_initiator_command_send(made, "test", "echo", "0", "x");
                }
                Strings strings;
                if (status == good) {
                    status = kavri_core_ipc_initiator_response_receive(
                        made, -1, &strings.category, &strings.identifier, &strings.uuid,
                        &strings.payload);
                }
                for (char* string :
                     {strings.category, strings.identifier, strings.uuid, strings.payload}) {
                    std::free(string);
                }
                return status;
            });
            if (made != nullptr) {
                BOOST_TEST(kavri_core_ipc_deinit(made) == good);
            }
            BOOST_TEST(haveFurtherThreads(0));
        });
    };
    live();
    live();  // what is made once and kept is there now
    const long before = blocksInUse;
    live();
    const long after = blocksInUse;
    BOOST_TEST(after == before);
}
