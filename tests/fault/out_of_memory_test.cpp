// Memory runs out in the library: at every single allocation of every function, and on the
// library's own thread. A call fails with OUT_OF_RESOURCES or does its work, nothing is
// lost or left behind, and the next call works.
#define BOOST_TEST_MODULE outOfMemory

#include <boost/test/unit_test.hpp>

#ifdef KAVRI_SANITIZED

BOOST_AUTO_TEST_CASE(skipped) {
    BOOST_TEST_MESSAGE("skipped: a sanitizer has an allocator of its own");
    BOOST_TEST(true);
}

#else

#include <array>

#include "cli/temporary_folder.h"
#include "support/client.h"
#include "support/failing_allocations.h"
#include "support/service_process.h"

using namespace kavri::tests;

namespace {

constexpr auto good = KAVRI_CORE_STATUS_NO_ERROR;
constexpr auto noMemory = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
// Longer than what a string holds without an allocation.
const std::string longCategory = "a category with a long name";

struct Setting {
    kavri::cli::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
    BrokerProcess broker{address, {.testService = true}};
    Library library;

    Setting() { isTestThread = true; }

    // For a responder of its own in each attempt.
    std::string anotherCategory() { return longCategory + " " + std::to_string(++categories_); }

  private:
    int categories_ = 0;
};

// A call whose allocations fail from the n-th on: one, or all of them.
struct Failure {
    long first = 1;
    long count = 1;
};

// Does `attempt` once for each allocation that the call in it makes, with that one failing,
// and once more with all from that one on failing. An attempt makes its call through
// `calling`, which returns the status; how many attempts had one fail.
class Attempts {
  public:
    template <typename Attempt>
    static long run(const Attempt& attempt) {
        long failures = 0;
        for (const long count : {1L, FailingAllocations::all}) {
            Attempts attempts;
            attempts.failure_.count = count;
            do {
                attempts.failed_ = 0;
                BOOST_TEST_CONTEXT("allocation " << attempts.failure_.first << ", count "
                                                 << count) {
                    attempt(attempts);
                }
                failures += attempts.failed_ > 0 ? 1 : 0;
            } while (attempts.failed_ > 0 && ++attempts.failure_.first < 200);
            BOOST_TEST(attempts.failed_ == 0);  // it came to an end
        }
        return failures;
    }

    template <typename Call>
    kavri_core_status calling(const Call& call) {
        failingHere.begin(failure_.first, failure_.count);
        const kavri_core_status status = call();
        failed_ = failingHere.end();
        BOOST_TEST((status == good || (status == noMemory && failed_ > 0)),
                   "came to " << kavri_core_status_text(status));
        return status;
    }

  private:
    Failure failure_;
    long failed_ = 0;
};

// That a request and its answer go through, and nothing else was waiting.
void expectInOrder(Initiator& initiator) {
    BOOST_TEST(initiator.echo("next") == good);
    BOOST_TEST((initiator.receive().uuid == "next"));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

// What callbacks got, in memory that is there from the beginning: they run on the thread
// whose allocations fail.
struct Counts {
    std::array<int, 4096> uuids{};
    std::atomic<std::size_t> responses{0};
    std::atomic<int> events{0};
    std::atomic<int> restored{0};

    static void response(char** category, char** identifier, char** uuid, char** payload,
                         void* counts) {
        auto& self = *static_cast<Counts*>(counts);
        self.uuids.at(self.responses) = std::atoi(*uuid);
        for (char** string : {category, identifier, uuid, payload}) {
            std::free(*string);
        }
        ++self.responses;
    }
    static void event(char** category, char** identifier, char** payload, void* counts) {
        for (char** string : {category, identifier, payload}) {
            std::free(*string);
        }
        ++static_cast<Counts*>(counts)->events;
    }
    static void request(kavri_core_ipc_request, char** category, char** identifier, char** uuid,
                        char** payload, void* counts) {
        response(category, identifier, uuid, payload, counts);
    }
    static void change(const kavri_core_ipc_connection_change* change, void* counts) {
        if (change->event == KAVRI_CORE_IPC_CONNECTION_RESTORED) {
            ++static_cast<Counts*>(counts)->restored;
        }
    }
    bool haveResponses(std::size_t count) const {
        return eventually([&] { return responses >= count; });
    }
    bool haveEvents(int count) const {
        return eventually([&] { return events >= count; });
    }
};

// The endpoint's descriptors and its thread are gone.
struct Remains {
    std::size_t descriptors = count();

    static std::size_t count() {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    }
    void expectSame() const {
        BOOST_TEST(eventually([] { return furtherThreads() == 0; }));
        BOOST_TEST(count() == descriptors);
    }
};

bool librarysThreadSleeps() {
    const std::string own = std::to_string(::getpid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() != own && stateIn(task.path() / "stat") == "S") {
            return true;
        }
    }
    return false;
}

kavri_core_ipc_options watched(Counts& counts) {
    kavri_core_ipc_options options{};
    options.connectionCallback = Counts::change;
    options.connectionContext = &counts;
    return options;
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(life, Setting)

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

BOOST_FIXTURE_TEST_SUITE(sending, Setting)

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
            expectInOrder(initiator);
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
        expectInOrder(initiator);
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
        expectInOrder(initiator);
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
        expectInOrder(initiator);
    });
    BOOST_TEST(failures > 4);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_FIXTURE_TEST_SUITE(receiving, Setting)

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
            expectInOrder(initiator);
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

BOOST_FIXTURE_TEST_SUITE(answering, Setting)

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
            expectInOrder(initiator);
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
        expectInOrder(initiator);
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

BOOST_FIXTURE_TEST_SUITE(callbacks, Setting)

BOOST_AUTO_TEST_CASE(aResponseCallbackIsInstalledOrNot) {
    Counts counts;
    const long failures = Attempts::run([&](Attempts& attempts) {
        counts.responses = 0;
        Initiator initiator(address);
        const kavri_core_status status =
            attempts.calling([&] { return initiator.onResponse(Counts::response, &counts); });
        if (status != good) {
            expectInOrder(initiator);
            BOOST_TEST(initiator.onResponse(Counts::response, &counts) == good);
        }
        BOOST_TEST(initiator.echo("7") == good);
        BOOST_TEST(counts.haveResponses(1));
        // Removing needs no memory.
        failingHere.begin(1, FailingAllocations::all);
        const kavri_core_status removed = initiator.onResponse(nullptr, nullptr);
        BOOST_TEST(failingHere.end() == 0);
        BOOST_TEST(removed == good);
        expectInOrder(initiator);
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
        BOOST_TEST(furtherThreads() == (status == good ? 1U : 0U));
        expectInOrder(initiator);
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

BOOST_FIXTURE_TEST_SUITE(subscriptions, Setting)

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
        expectInOrder(initiator);
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

BOOST_FIXTURE_TEST_SUITE(ownThread, Setting)

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
    expectInOrder(initiator);
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

BOOST_FIXTURE_TEST_CASE(nothingLeaks, Setting) {
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
            BOOST_TEST(eventually([] { return furtherThreads() == 0; }));
        });
    };
    live();
    live();  // what is made once and kept is there now
    const long before = blocksInUse;
    live();
    const long after = blocksInUse;
    BOOST_TEST(after == before);
}

#endif
