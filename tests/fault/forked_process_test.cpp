// A child that was forked: what it inherited refuses every call and changes nothing of the
// parent, and what it makes itself works.
#define BOOST_TEST_MODULE forkedProcess

#include <fcntl.h>
#include <sys/wait.h>

#include <boost/test/unit_test.hpp>
#include <functional>

#include "base/pipe.h"
#include "support/scripted_connection.h"
#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

constexpr auto otherProcess = KAVRI_CORE_STATUS_IPC_OTHER_PROCESS;

// A child that does this and leaves with the number of the first step that was not right, or
// 0. One that hangs is ended by its own alarm.
class Child {
  public:
    explicit Child(const std::function<int()>& work) : pid_(::fork()) {
        if (pid_ == 0) {
            ::alarm(60);
            ::_exit(work());
        }
    }
    // The status it left with; -1: it was ended by a signal.
    int wait() const {
        int status = 0;
        if (::waitpid(pid_, &status, 0) != pid_) {
            return -1;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_;
};

int inChild(const std::function<int()>& work) {
    return Child(work).wait();
}

// Every function of an inherited initiator; 0, or which of them was not refused.
int callAll(kavri_core_ipc_initiator* initiator) {
    Strings strings;
    const kavri_core_ipc_command command{"test", "echo", "stolen", "x"};
    std::size_t sent = 1;
    const std::array<kavri_core_status, 8> statuses{
        kavri_core_ipc_initiator_command_send(initiator, "test", "echo", "stolen", "x"),
        kavri_core_ipc_initiator_command_send_batch(initiator, &command, 1, &sent),
        kavri_core_ipc_initiator_response_receive(
            initiator, -1, &strings.category, &strings.identifier, &strings.uuid, &strings.payload),
        kavri_core_ipc_initiator_response_receive_callback(initiator, Inbox::response, nullptr),
        kavri_core_ipc_initiator_response_receive_callback(initiator, nullptr, nullptr),
        kavri_core_ipc_initiator_event_receive_callback(initiator, Inbox::event, nullptr),
        kavri_core_ipc_initiator_event_subscribe(initiator, "test"),
        kavri_core_ipc_initiator_event_unsubscribe(initiator, "test")};
    for (std::size_t i = 0; i < statuses.size(); ++i) {
        if (statuses[i] != otherProcess) {
            return static_cast<int>(10 + i);
        }
    }
    return sent == 0 && strings.areUntouched() ? 0 : 9;
}

int callAll(kavri_core_ipc_responder* responder) {
    Strings strings;
    kavri_core_ipc_request request{};
    const std::array<kavri_core_status, 6> statuses{
        kavri_core_ipc_responder_request_receive(responder, -1, &request, &strings.category,
                                                 &strings.identifier, &strings.uuid,
                                                 &strings.payload),
        kavri_core_ipc_responder_request_receive_callback(responder, Inbox::request, nullptr),
        kavri_core_ipc_responder_request_receive_callback(responder, nullptr, nullptr),
        kavri_core_ipc_responder_response_send(responder, {1, 1}, "x", "x", "x", "x"),
        kavri_core_ipc_responder_request_end(responder, {1, 1}),
        kavri_core_ipc_responder_event_publish(responder, "work", "x", "x")};
    for (std::size_t i = 0; i < statuses.size(); ++i) {
        if (statuses[i] != otherProcess) {
            return static_cast<int>(30 + i);
        }
    }
    return strings.areUntouched() ? 0 : 29;
}

// A request and its answer, through an initiator of this process.
int useOwn(const std::string& address) {
    Initiator own(address);
    if (!own.echoes("own")) {
        return 50;
    }
    return kavri_core_ipc_deinit(own.release()) == good ? 0 : 51;
}

// Calls of an inherited initiator, and its end.
int endInherited(kavri_core_ipc_initiator* initiator, int rounds = 1) {
    int failed = 0;
    for (int i = 0; i < rounds && failed == 0; ++i) {
        failed = callAll(initiator);
    }
    return failed != 0 ? failed : kavri_core_ipc_deinit(initiator) == good ? 0 : 1;
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(aChild, WithBroker)

BOOST_AUTO_TEST_CASE(isRefusedByEveryFunctionAndTakesNothing) {
    Initiator initiator(address);
    initiator.echoAll(numbers(100));
    const Child child([&] { return endInherited(initiator.get(), 2000); });
    BOOST_TEST(receiveUuids(initiator, 100) == numbers(100), boost::test_tools::per_element());
    BOOST_TEST(child.wait() == 0);
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(isRefusedThoughTheParentHasACallbackThread) {
    Inbox inbox;
    Inbox events;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &inbox);
    initiator.onEvent(Inbox::event, &events);
    initiator.subscribe("test");
    initiator.echoAll(numbers(50));
    const Child child([&] { return endInherited(initiator.get(), 500); });
    initiator.echoAll(numbers(50, 50));
    BOOST_TEST(child.wait() == 0);
    BOOST_TEST(inbox.waitFor(100));
    BOOST_TEST(inbox.uuids() == numbers(100), boost::test_tools::per_element());
    // The subscription is the parent's still.
    initiator.send("test", "event");
    BOOST_TEST(events.waitFor(1));
}

BOOST_AUTO_TEST_CASE(isRefusedByAResponder) {
    Responder responder(address, "work");
    Initiator initiator(address);
    for (const std::string& uuid : numbers(20)) {
        initiator.send("work", "do", uuid);
    }
    const Child child([&] {
        const int failed = callAll(responder.get());
        return failed != 0                                                ? failed
               : kavri_core_ipc_responder_deinit(responder.get()) == good ? 0
                                                                          : 1;
    });
    for (const std::string& uuid : numbers(20)) {
        const Message request = responder.receive();
        BOOST_TEST((request.uuid == uuid));
        BOOST_TEST(responder.answer(request, "x") == good);
        BOOST_TEST((initiator.receive().uuid == uuid));
    }
    BOOST_TEST(child.wait() == 0);
    // Its end in the child was not the responder's.
    initiator.send("work", "do", "after");
    BOOST_TEST((responder.receive().uuid == "after"));
}

BOOST_AUTO_TEST_CASE(makesAnInitiatorOfItsOwnAndSoDoesItsChild) {
    Initiator initiator(address);
    initiator.echo("parent");
    const int left = inChild([&] {
        if (const int failed = useOwn(address); failed != 0) {
            return failed;
        }
        Initiator own(address);
        const int grandchild = inChild([&] {
            const int inherited = callAll(initiator.get()) + callAll(own.get());
            return inherited != 0 ? inherited : useOwn(address);
        });
        return grandchild != 0 ? grandchild : kavri_core_ipc_deinit(own.release()) == good ? 0 : 2;
    });
    BOOST_TEST(left == 0);
    BOOST_TEST((initiator.receive().uuid == "parent"));
}

BOOST_AUTO_TEST_CASE(releasesItsDescriptorsThoughAThreadOfTheParentReads) {
    Initiator initiator(address);
    BlockedCall receive([&] { initiator.receive(-1); });
    BOOST_TEST(receive.sleeps());
    BOOST_TEST(inChild([&] {
                   const std::size_t before = openDescriptors();
                   if (kavri_core_ipc_deinit(initiator.get()) != good) {
                       return 1;
                   }
                   return openDescriptors() == before - 2 ? 0 : 2;  // the socket and the waker
               }) == 0);
    BOOST_TEST(!receive.hasReturned());
    initiator.echo("0");
    receive.join();
}

BOOST_AUTO_TEST_CASE(endsWhatItInheritedWhateverTheParentWasDoing) {
    Initiator initiator(address);
    Initiator waiting(address);
    std::atomic<bool> stops{false};
    std::atomic<bool> allAreSent{false};
    std::atomic<int> received{0};
    std::atomic<int> sent{0};
    BlockedCall receive([&] { waiting.receive(-1); });
    BOOST_TEST(receive.sleeps());
    {
        std::jthread sender([&] {
            while (!stops) {
                sent += initiator.echo(std::to_string(sent)) == good ? 1 : 0;
                eventually([&] { return received > sent - 100; });
            }
            allAreSent = true;
        });
        std::jthread receiver([&] {
            while (!allAreSent || received < sent) {
                const Message message = initiator.receive(10);
                if (message.status == good) {
                    received += message.uuid == std::to_string(received) ? 1 : 1'000'000;
                }
            }
        });
        for (int i = 0; i < 100; ++i) {
            BOOST_TEST(inChild([&] {
                           return endInherited(initiator.get()) + endInherited(waiting.get());
                       }) == 0);
        }
        stops = true;
    }
    BOOST_TEST(received == sent);  // each once, in order
    waiting.echo("0");
    receive.join();
}

// The sanitizers take a thread of a child for one of its parent's with the same address.
#ifndef KAVRI_SANITIZED

namespace {

// Has this process log into a pipe that is full: a thread that logs is stuck for good.
bool blockLogging() {
    static const kavri::base::Pipe pipe = kavri::base::Pipe::make(O_NONBLOCK);
    const std::string filling(1 << 20, 'x');
    while (::write(pipe.writeEnd.get(), filling.data(), filling.size()) > 0) {
    }
    ::fcntl(pipe.writeEnd.get(), F_SETFL, 0);
    ::setenv("KAVRI_LOG", "info", 1);
    return ::dup2(pipe.writeEnd.get(), STDERR_FILENO) >= 0;
}

}  // namespace

BOOST_AUTO_TEST_CASE(makesOneWithCallbacks) {
    Inbox inherited;
    Initiator initiator(address);
    initiator.onResponse(Inbox::response, &inherited);
    BOOST_TEST(inChild([&] {
                   Inbox inbox;
                   Initiator own(address);
                   return own.onResponse(Inbox::response, &inbox) == good &&
                                  own.echo("own") == good && inbox.waitFor(1)
                              ? 0
                              : 1;
               }) == 0);
    initiator.echo("parent");
    BOOST_TEST(inherited.waitFor(1));
    BOOST_TEST(inherited.count() == 1U);
}

// While one thread of the parent is stuck in writing a line of its log.
BOOST_AUTO_TEST_CASE(logsThoughTheParentWasLogging) {
    BOOST_TEST(inChild([&] {
                   if (!blockLogging()) {
                       return 1;
                   }
                   const std::string nowhere = folder / "nowhere.sock";
                   kavri_core_ipc_options options = optionsFor(nowhere);
                   kavri_core_ipc_initiator* none = nullptr;
                   BlockedCall logging(
                       [&] { kavri_core_ipc_initiator_init(nullptr, &options, &none); });
                   if (!logging.sleeps()) {
                       return 2;
                   }
                   const int child = inChild([&] {
                       ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
                       kavri_core_ipc_initiator* own = nullptr;
                       return kavri_core_ipc_initiator_init(nullptr, &options, &own) ==
                                      KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE
                                  ? 0
                                  : 3;
                   });
                   ::_exit(child);  // the thread that logs is stuck for good
                   return child;
               }) == 0);
}

// While one thread of the parent is stuck in writing a line of its log, with the lock of the
// initiator that the child inherits.
BOOST_AUTO_TEST_CASE(releasesItsDescriptorsThoughAThreadOfTheParentHeldTheLock) {
    BOOST_TEST(inChild([&] {
                   if (!blockLogging()) {
                       return 1;
                   }
                   ScriptedConnection parent;
                   // It is there when the receive looks for it, so that sleeps in the log only.
                   parent.peer.send(responseFrame(77, "to no request"));
                   BlockedCall receive([&] { parent.initiator.receive(-1); });
                   if (!receive.sleeps()) {
                       return 2;
                   }
                   const int child = inChild([&] {
                       const std::size_t before = openDescriptors();
                       if (kavri_core_ipc_deinit(parent.initiator.get()) != good) {
                           return 3;
                       }
                       return openDescriptors() == before - 2 ? 0 : 4;  // the socket and the waker
                   });
                   ::_exit(child);
                   return child;
               }) == 0);
}

#endif

BOOST_AUTO_TEST_SUITE_END()
