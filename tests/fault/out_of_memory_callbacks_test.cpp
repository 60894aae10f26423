// Memory runs out where a callback is installed, and on the library's own thread: whatever
// fails, everything is delivered once there is memory again.
#define BOOST_TEST_MODULE outOfMemoryCallbacks

#include "support/out_of_memory.h"

using namespace kavri::tests;

BOOST_FIXTURE_TEST_SUITE(callbacks, WithoutMemory)

BOOST_AUTO_TEST_CASE(aResponseCallbackIsInstalledOrNot) {
    Counts counts;
    const long failures = Attempts::run([&](Attempts& attempts) {
        counts.responses = 0;
        Initiator initiator(address);
        const kavri_core_status status =
            attempts.calling([&] { return initiator.onResponse(Counts::response, &counts); });
        if (status != good) {
            expectWorks(initiator);
            BOOST_TEST(initiator.onResponse(Counts::response, &counts) == good);
        }
        BOOST_TEST(initiator.echo("7") == good);
        BOOST_TEST(counts.haveResponses(1));
        // Removing needs no memory.
        failingHere.begin(1, FailingAllocations::all);
        const kavri_core_status removed = initiator.onResponse(nullptr, nullptr);
        BOOST_TEST(failingHere.end() == 0);
        BOOST_TEST(removed == good);
        expectWorks(initiator);
    });
    BOOST_TEST(failures >= 2);
}

BOOST_AUTO_TEST_CASE(installingStartsTheThreadOrFails) {
    Counts counts;
    const Remains remains;
    const long failures = Attempts::run([&](Attempts& attempts) {
        Initiator initiator(address);
        const kavri_core_status status =
            attempts.calling([&] { return initiator.onEvent(Counts::event, &counts); });
        BOOST_TEST(haveFurtherThreads(status == good ? 1 : 0));
        expectWorks(initiator);
        initiator.end();
        remains.expectSame();
    });
    BOOST_TEST(failures >= 2);
}

BOOST_AUTO_TEST_CASE(aRequestCallbackIsInstalledOrNot) {
    Counts counts;
    const long failures = Attempts::run([&](Attempts& attempts) {
        counts.responses = 0;
        const std::string name = anotherCategory();
        Responder responder(address, name);
        Initiator initiator(address);
        const kavri_core_status status =
            attempts.calling([&] { return responder.onRequest(Counts::request, &counts); });
        BOOST_TEST(initiator.send(name, "do", "5") == good);
        if (status == good) {
            BOOST_TEST(counts.haveResponses(1));
        } else {
            BOOST_TEST((responder.receive().uuid == "5"));
        }
    });
    BOOST_TEST(failures >= 2);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(ownThread, WithoutMemory)

BOOST_AUTO_TEST_CASE(deliversEverythingInOrderWhicheverAllocationFails) {
    Counts counts;
    Initiator initiator(address);
    BOOST_TEST(initiator.onResponse(Counts::response, &counts) == good);
    int sent = 0;
    long failed = 0;
    for (const std::size_t bytes : {1U, 20'000U, 1'000'000U}) {
        const std::string payload(bytes, 'x');
        for (long first = 1; first < 25; ++first) {
            failingElsewhere.begin(first, 1 + first % 3);
            for (int i = 0; i < 3; ++i) {
                BOOST_TEST(initiator.echo(std::to_string(sent++), payload) == good);
            }
            BOOST_REQUIRE(counts.haveResponses(static_cast<std::size_t>(sent)));
            failed += failingElsewhere.end();
        }
    }
    BOOST_TEST(failed > 60);
    for (int i = 0; i < sent; ++i) {
        BOOST_TEST(counts.uuids.at(static_cast<std::size_t>(i)) == i);
    }
}

BOOST_AUTO_TEST_CASE(deliversOnceThereIsMemory) {
    for (const std::size_t bytes : {1U, 1'000'000U}) {
        Counts counts;
        Initiator initiator(address);
        BOOST_TEST(initiator.onResponse(Counts::response, &counts) == good);
        BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
        BOOST_TEST(initiator.subscribe("test") == good);
        failingElsewhere.begin(1, FailingAllocations::all);
        BOOST_TEST(initiator.echo("7", std::string(bytes, 'x')) == good);
        BOOST_TEST(initiator.send("test", "event") == good);
        // It tries again and again, and waits in between.
        BOOST_TEST(eventually([] { return failingElsewhere.failed() >= 5; }));
        BOOST_TEST(counts.responses == 0U);
        failingElsewhere.end();
        BOOST_TEST(counts.haveResponses(1));
        BOOST_TEST(counts.haveEvents(1));
        BOOST_TEST(counts.uuids[0] == 7);
    }
}

BOOST_AUTO_TEST_CASE(hasOneOutcomeForEachRequestWhicheverAllocationFails) {
    std::atomic<long> outcomes{0};
    kavri_core_ipc_options options{};
    options.outcomeCallback = [](const char*, kavri_core_status, void* context) {
        ++*static_cast<std::atomic<long>*>(context);
    };
    options.outcomeContext = &outcomes;
    Initiator initiator(address, options);
    long sent = 0;
    const long failures = Attempts::run([&](Attempts& attempts) {
        const std::string uuid(5000, 'u');
        const kavri_core_status status =
            attempts.calling([&] { return initiator.send("nobody", "hello", uuid, ""); });
        sent += status == good ? 1 : 0;
        BOOST_TEST(initiator.send("nobody", "hello", "again") == good);
        ++sent;
        BOOST_REQUIRE(eventually([&] { return outcomes == sent; }));
    });
    BOOST_TEST(failures >= 2);
}

BOOST_AUTO_TEST_CASE(startsWithoutMemory) {
    for (long first = 1; first < 6; ++first) {
        Counts counts;
        Initiator initiator(address);
        BOOST_TEST(initiator.echo("3") == good);
        failingElsewhere.begin(first, FailingAllocations::all);
        BOOST_TEST(initiator.onResponse(Counts::response, &counts) == good);
        BOOST_TEST((first > 1 || eventually([] { return failingElsewhere.failed() >= 1; })));
        failingElsewhere.end();
        BOOST_TEST(counts.haveResponses(1));
        BOOST_TEST(counts.uuids[0] == 3);
    }
}

BOOST_AUTO_TEST_CASE(connectsAgainOnceThereIsMemory) {
    Counts counts;
    Initiator initiator(address, watched(counts));
    BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
    BOOST_TEST(initiator.subscribe("test") == good);
    failingElsewhere.begin(1, FailingAllocations::all);
    broker.restart();
    BOOST_TEST(eventually([] { return failingElsewhere.failed() >= 3; }));
    failingElsewhere.end();
    BOOST_TEST(eventually([&] { return counts.restored == 1; }));
    BOOST_TEST(initiator.send("test", "event") == good);
    BOOST_TEST(counts.haveEvents(1));
    expectWorks(initiator);
}

BOOST_AUTO_TEST_CASE(restoresTheSubscriptionWhicheverAllocationFails) {
    for (int first = 1; first <= 20; ++first) {
        Counts counts;
        Initiator initiator(address, watched(counts));
        BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
        BOOST_TEST(initiator.subscribe("test") == good);
        failingElsewhere.begin(first, 1);
        broker.restart();
        // Whatever failed, a connection that stays is one with its subscription.
        BOOST_TEST(eventually([&, before = counts.events.load()] {
            initiator.send("test", "event");
            return counts.events > before;
        }));
        failingElsewhere.end();
    }
}

BOOST_AUTO_TEST_SUITE_END()
