// Memory runs out in a call that sends, receives, answers or subscribes: it fails with
// OUT_OF_RESOURCES or does its work, nothing is lost, and the next call works.
#define BOOST_TEST_MODULE outOfMemoryCalls

#include "support/out_of_memory.h"

using namespace kavri::tests;

BOOST_FIXTURE_TEST_SUITE(sending, WithoutMemory)

BOOST_AUTO_TEST_CASE(aRequestIsSentOrRefused) {
    for (const std::size_t bytes : {1U, 10'000U, 20'000U, 1'000'000U}) {
        const std::string payload(bytes, 'x');
        const long failures = Attempts::run([&](Attempts& attempts) {
            Initiator initiator(address);
            const kavri_core_status status = attempts.calling([&] {
                return kavri_core_ipc_initiator_command_send(initiator.get(), "test", "echo", "0",
                                                             payload.c_str());
            });
            if (status == good) {
                const Message received = initiator.receive();
                BOOST_TEST((received.uuid == "0"));
                BOOST_TEST((received.payload == payload));
            }
            expectWorks(initiator);
        });
        BOOST_TEST(failures >= 2);
    }
}

BOOST_AUTO_TEST_CASE(ofABatchJustThoseAreSentThatItSays) {
    const std::string payload(2000, 'x');
    const std::vector<std::string> uuids = numbers(600);
    std::vector<kavri_core_ipc_command> commands;
    for (const std::string& uuid : uuids) {
        commands.push_back({"test", "echo", uuid.c_str(), payload.c_str()});
    }
    const std::string large(100'000, 'x');
    commands[300].payload = large.c_str();
    bool wasPartlySent = false;
    bool hasFailed = true;
    for (long first = 1; hasFailed; ++first) {
        BOOST_REQUIRE(first < 1000);
        Initiator initiator(address);
        std::size_t sent = 0;
        failingHere.begin(first, 1);
        const kavri_core_status status = kavri_core_ipc_initiator_command_send_batch(
            initiator.get(), commands.data(), commands.size(), &sent);
        hasFailed = failingHere.end() > 0;
        BOOST_TEST((status == (hasFailed ? noMemory : good) || status == good));
        BOOST_TEST((sent == commands.size()) == (status == good));
        wasPartlySent = wasPartlySent || (sent > 0 && sent < commands.size());
        for (std::size_t i = 0; i < sent; ++i) {
            BOOST_REQUIRE((initiator.receive().uuid == uuids[i]));
        }
        expectWorks(initiator);
    }
    BOOST_TEST(wasPartlySent);
}

BOOST_AUTO_TEST_CASE(aSendThatConnectsAgainRestoresTheSubscription) {
    Counts counts;
    const long failures = Attempts::run([&](Attempts& attempts) {
        counts.events = 0;
        Initiator initiator(address);
        // Without a callback nobody but the caller connects again.
        BOOST_TEST(initiator.subscribe("test") == good);
        broker.restart();
        BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
        const kavri_core_status status = attempts.calling([&] {
            return kavri_core_ipc_initiator_command_send(initiator.get(), "test", "echo", "0", "x");
        });
        if (status == good) {
            BOOST_TEST((initiator.receive().uuid == "0"));
        }
        expectWorks(initiator);
        BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
        BOOST_TEST(initiator.send("test", "event") == good);
        BOOST_TEST(counts.haveEvents(1));
    });
    BOOST_TEST(failures > 10);
}

BOOST_AUTO_TEST_CASE(aReceiveThatConnectsAgainSaysThatThereIsNoMemory) {
    const long failures = Attempts::run([&](Attempts& attempts) {
        Initiator initiator(address);
        broker.restart();
        BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
        Strings strings;
        attempts.calling([&] {
            const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
                initiator.get(), 100, &strings.category, &strings.identifier, &strings.uuid,
                &strings.payload);
            return status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE ? good : status;
        });
        BOOST_TEST(strings.areUntouched());
        expectWorks(initiator);
    });
    BOOST_TEST(failures > 4);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(receiving, WithoutMemory)

BOOST_AUTO_TEST_CASE(aResponseThatCannotBeStoredIsReceivedByTheNextCall) {
    for (const std::size_t bytes : {1U, 10'000U, 20'000U, 1'000'000U}) {
        const std::string payload(bytes, 'x');
        const long failures = Attempts::run([&](Attempts& attempts) {
            Initiator initiator(address);
            BOOST_TEST(initiator.echo("0", payload) == good);
            BOOST_TEST(initiator.echo("1") == good);
            Strings strings;
            const kavri_core_status status = attempts.calling([&] {
                return kavri_core_ipc_initiator_response_receive(
                    initiator.get(), -1, &strings.category, &strings.identifier, &strings.uuid,
                    &strings.payload);
            });
            BOOST_TEST(strings.areUntouched() == (status != good));
            const Message first(status, strings);
            const Message received = status == good ? first : initiator.receive();
            BOOST_TEST((received.uuid == "0"));
            BOOST_TEST((received.payload == payload));
            BOOST_TEST((initiator.receive().uuid == "1"));
            expectWorks(initiator);
        });
        BOOST_TEST(failures >= 8);
    }
}

BOOST_AUTO_TEST_CASE(aRequestThatCannotBeStoredIsReceivedByTheNextCall) {
    Responder responder(address, longCategory);
    Initiator initiator(address);
    for (const std::size_t bytes : {1U, 20'000U, 1'000'000U}) {
        const std::string payload(bytes, 'x');
        const long failures = Attempts::run([&](Attempts& attempts) {
            BOOST_TEST(initiator.send(longCategory, "do", "0", payload) == good);
            Strings strings;
            kavri_core_ipc_request request{};
            const kavri_core_status status = attempts.calling([&] {
                return kavri_core_ipc_responder_request_receive(
                    responder.get(), -1, &request, &strings.category, &strings.identifier,
                    &strings.uuid, &strings.payload);
            });
            BOOST_TEST(strings.areUntouched() == (status != good));
            Message received(status, strings);
            received.request = request;
            if (status != good) {
                received = responder.receive();
            }
            BOOST_REQUIRE(received.status == good);
            BOOST_TEST((received.payload == payload));
            BOOST_TEST(responder.answer(received, nullptr) == good);
            BOOST_TEST((initiator.receive().uuid == "0"));
        });
        BOOST_TEST(failures >= 4);
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(answering, WithoutMemory)

BOOST_AUTO_TEST_CASE(aRequestIsAnsweredOnceOrStaysOpen) {
    for (const std::size_t bytes : {1U, 20'000U, 1'000'000U}) {
        const std::string payload(bytes, 'x');
        Attempts::run([&](Attempts& attempts) {
            const std::string name = anotherCategory();
            Responder responder(address, name);
            Initiator initiator(address);
            BOOST_TEST(initiator.send(name, "do", "0") == good);
            const Message request = responder.receive();
            BOOST_REQUIRE(request.status == good);
            const kavri_core_status status =
                attempts.calling([&] { return responder.answer(request, payload.c_str()); });
            if (status != good) {
                BOOST_TEST(responder.answer(request, payload.c_str()) == good);
            }
            BOOST_TEST((initiator.receive().payload == payload));
            expectWorks(initiator);
        });
    }
}

BOOST_AUTO_TEST_CASE(aRequestIsEndedOrStaysOpen) {
    Attempts::run([&](Attempts& attempts) {
        const std::string name = anotherCategory();
        Responder responder(address, name);
        Initiator initiator(address);
        BOOST_TEST(initiator.send(name, "do", "0") == good);
        const Message request = responder.receive();
        BOOST_REQUIRE(request.status == good);
        if (attempts.calling([&] { return responder.finish(request); }) != good) {
            BOOST_TEST(responder.answer(request, "after all") == good);
            BOOST_TEST((initiator.receive().payload == "after all"));
        }
        expectWorks(initiator);
    });
}

BOOST_AUTO_TEST_CASE(anEventIsPublishedOrNot) {
    Counts counts;
    for (const std::size_t bytes : {1U, 20'000U}) {
        const std::string payload(bytes, 'x');
        Attempts::run([&](Attempts& attempts) {
            const std::string name = anotherCategory();
            Responder responder(address, name);
            Initiator initiator(address);
            counts.events = 0;
            BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
            BOOST_TEST(initiator.subscribe(name) == good);
            BOOST_TEST(initiator.subscribe("test") == good);
            const kavri_core_status status = attempts.calling([&] {
                return kavri_core_ipc_responder_event_publish(responder.get(), name.c_str(), "x",
                                                              payload.c_str());
            });
            BOOST_TEST(counts.haveEvents(status == good ? 1 : 0));
            BOOST_TEST(initiator.send("test", "event") == good);
            BOOST_TEST(counts.haveEvents(status == good ? 2 : 1));
            BOOST_TEST(initiator.onEvent(nullptr, nullptr) == good);
            BOOST_TEST(counts.events == (status == good ? 2 : 1));
        });
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(subscriptions, WithoutMemory)

BOOST_AUTO_TEST_CASE(subscribingIsInEffectOrNot) {
    Counts counts;
    const long failures = Attempts::run([&](Attempts& attempts) {
        counts.events = 0;
        const std::string name = anotherCategory();
        Responder responder(address, name);
        Initiator initiator(address);
        const kavri_core_status status = attempts.calling([&] {
            return kavri_core_ipc_initiator_event_subscribe(initiator.get(), name.c_str());
        });
        BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
        if (status != good) {
            BOOST_TEST(initiator.subscribe(name) == good);
        }
        BOOST_TEST(responder.publish(name, "x", "x") == good);
        BOOST_TEST(counts.haveEvents(1));
        expectWorks(initiator);
    });
    BOOST_TEST(failures > 4);
}

BOOST_AUTO_TEST_CASE(anAcknowledgementThatTheThreadCannotStoreTakesEffectLater) {
    // The acknowledgement is stored by the library's thread, which reads.
    long failed = 0;
    for (long first = 1; first < 12; ++first) {
        Counts counts;
        const std::string name = anotherCategory();
        Responder responder(address, name);
        Initiator initiator(address);
        BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
        BOOST_TEST(eventually(librarysThreadSleeps));  // in its wait for the socket
        failingElsewhere.begin(first, 1);
        BOOST_TEST(initiator.subscribe(name) == good);
        failed += failingElsewhere.end();
        BOOST_TEST(responder.publish(name, "x", "x") == good);
        BOOST_TEST(counts.haveEvents(1));
    }
    BOOST_TEST(failed > 0);
}

BOOST_AUTO_TEST_CASE(unsubscribingIsOverInAnyCase) {
    Counts counts;
    const long failures = Attempts::run([&](Attempts& attempts) {
        counts.events = 0;
        const std::string name = anotherCategory();
        Responder responder(address, name);
        Initiator initiator(address);
        BOOST_TEST(initiator.onEvent(Counts::event, &counts) == good);
        BOOST_TEST(initiator.subscribe(name) == good);
        BOOST_TEST(initiator.subscribe("test") == good);
        attempts.calling([&] {
            return kavri_core_ipc_initiator_event_unsubscribe(initiator.get(), name.c_str());
        });
        // The event is routed, if at all, before the answer to a request behind it.
        BOOST_TEST(responder.publish(name, "x", "x") == good);
        BOOST_TEST(initiator.send(name, "do", "0") == good);
        BOOST_TEST(responder.answer(responder.receive(), "x") == good);
        BOOST_TEST((initiator.receive().uuid == "0"));
        BOOST_TEST(initiator.send("test", "event") == good);
        BOOST_TEST(counts.haveEvents(1));
        BOOST_TEST(initiator.onEvent(nullptr, nullptr) == good);
        BOOST_TEST(counts.events == 1);
    });
    BOOST_TEST(failures > 2);
}

BOOST_AUTO_TEST_SUITE_END()
