// The conformance module for the initiator side of the kavri core library.
//
// It proves that a core library brings an initiator up and down, sends requests,
// delivers responses in each of the three ways (blocking, polling, callback), refuses
// a receive that a callback rules out, and delivers events. The library is a black box
// behind the twelve C functions of <kavri/ipc.h>; the loader decides which one it is.
//
// The library's broker must have a test service for the category "test", which answers
// "echo" with the request's payload, "static_response" with "my static payload", and
// "get_repeat_count" with its counter in decimal, which "clr_repeat_count" sets to 0 and
// "inc_repeat_count" raises by 1, both without an answer; "event" publishes one event on
// "test". Responses carry their request's uuid, in the order of the requests. A missing
// one makes a blocking case wait for ever: run the module under a time limit.
#define BOOST_TEST_DYN_LINK
#define BOOST_TEST_MODULE testIpcInitiator
#include <kavri/ipc.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <mutex>
#include <sstream>
#include <string>

using std::string;

// How many requests a repeating case sends, and so how many must arrive.
static const unsigned int limit = 10;

// The framework takes no lock, and a library may deliver on a thread of its own while the
// case is still sending. So one thread at a time uses the framework: a callback takes its
// turn for its whole body, a case has its turn except while a function of the library runs
// and while it sleeps. A library may therefore call back on the caller's thread, make the
// caller wait for a callback, or hold a lock of its own meanwhile: nothing deadlocks.
static std::mutex framework;

// Calls of the two callbacks below. Plain integers: only the thread whose turn it is uses them.
unsigned int callbackCounter = 0;
unsigned int eventCounter = 0;

// Marks where a repeating case begins and ends: a place to hook in a trace or a clock.
static void mark(const string& /*label*/) {}

// The text before it, if any, and the number in plain decimal.
static string numbered(const char* text, unsigned long number) {
    std::ostringstream stream;
    stream << text << number;
    return stream.str();
}

// The log quotes each check and its line, by which its readers know those of the callback
// cases. So no check is broken over lines, and those stay. NULL is quoted as "__null".
// clang-format off

// For the length of one case: a core library that is up, with logging and an initiator;
// what a request carries unless the case says otherwise; the response received last.
struct basicInitiatorFixture {
    kavri_core_ipc_initiator* c = NULL;

    string cat = "test";
    string ident = "initiator";
    string uuid = "0";
    string payload = "this is my payload";

    // Each is null or owns a string that the library allocated.
    char* rcat = NULL;
    char* rident = NULL;
    char* ruuid = NULL;
    char* rpayload = NULL;

    kavri_core_logging_cookie logCookie = NULL;
    std::unique_lock<std::mutex> turn{framework, std::defer_lock};

    // Only a missing initiator ends a case at once. The destructor then does not run.
    basicInitiatorFixture() {
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_init());
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_logging_init("ipcInitiatorTest", &logCookie));
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_init(logCookie, NULL, &c));
        BOOST_REQUIRE(c != NULL);
        turn.lock();
    }

    ~basicInitiatorFixture() {
        turn.unlock();
        kavri_core_ipc_deinit(c);
        kavri_core_logging_deinit(logCookie);
        kavri_core_deinit();
        freeResponse();
    }

    // Calls a function while callbacks may take their turn.
    template <typename Function, typename... Arguments>
    auto outOfTurn(const Function& function, Arguments... arguments) {
        turn.unlock();
        const auto result = function(arguments...);
        turn.lock();
        return result;
    }

    // What a case calls by these names, which its checks quote, it calls out of turn.
    template <typename... Fields>
    kavri_core_status kavri_core_ipc_initiator_command_send(Fields... fields) {
        return outOfTurn(::kavri_core_ipc_initiator_command_send, fields...);
    }
    template <typename... Variables>
    kavri_core_status kavri_core_ipc_initiator_response_receive(Variables... variables) {
        return outOfTurn(::kavri_core_ipc_initiator_response_receive, variables...);
    }
    kavri_core_status kavri_core_ipc_initiator_response_receive_callback(kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback, void* context) {
        return outOfTurn(::kavri_core_ipc_initiator_response_receive_callback, initiator, callback, context);
    }
    kavri_core_status kavri_core_ipc_initiator_event_receive_callback(kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback, void* context) {
        return outOfTurn(::kavri_core_ipc_initiator_event_receive_callback, initiator, callback, context);
    }
    void sleep(unsigned int seconds) { outOfTurn(::sleep, seconds); }

    kavri_core_status send(const char* targetIdentifier) {
        return kavri_core_ipc_initiator_command_send(c, cat.c_str(), targetIdentifier, uuid.c_str(), payload.c_str());
    }

    // Without limit unless told otherwise. What the variables held must be released before.
    kavri_core_status recv(int timeout = -1) {
        return kavri_core_ipc_initiator_response_receive(c, timeout, &rcat, &rident, &ruuid, &rpayload);
    }

    // A library may let a subscription take effect a little after the call.
    kavri_core_status eventSubscribe(const char* category) {
        const kavri_core_status status = outOfTurn(kavri_core_ipc_initiator_event_subscribe, c, category);
        usleep(10000);
        return status;
    }
    kavri_core_status eventUnsubscribe(const char* category) {
        return outOfTurn(kavri_core_ipc_initiator_event_unsubscribe, c, category);
    }

    void freeResponse() {
        for (char** text : {&rcat, &rident, &ruuid, &rpayload}) {
            free(*text);
            *text = NULL;
        }
    }

    void clearBrokerRepeatCount() {
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_command_send(c, "test", "clr_repeat_count", "0", " "));
    }

    // The service's counter; -1 without a payload. The first response counts as the answer.
    int getBrokerRepeatCount() {
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_command_send(c, "test", "get_repeat_count", "0", " "));
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_response_receive(c, -1, &rcat, &rident, &ruuid, &rpayload));
        const int count = rpayload != NULL ? static_cast<int>(strtol(rpayload, NULL, 10)) : -1;
        freeResponse();
        return count;
    }
};

// Takes a response: complete, for this installation, and the next in order. Its
// uuid is its number, so a lost, doubled or overtaken one shows.
void dummyInitiatorReceiveCallback(char** targetCategory, char** targetIdentifier, char** uuid, char** payload, void* context) {
    const std::lock_guard<std::mutex> turn(framework);
    BOOST_CHECK(targetCategory);
    BOOST_CHECK(targetIdentifier);
    BOOST_CHECK(uuid);
    BOOST_CHECK(payload);
    BOOST_CHECK(context == (void*)0x87654321);
    const unsigned int u = static_cast<unsigned int>(strtol(*uuid, NULL, 10));
    BOOST_CHECK_EQUAL(callbackCounter, u);
    ++callbackCounter;
    free(*targetCategory);
    free(*targetIdentifier);
    free(*uuid);
    free(*payload);
}

// Takes an event: complete and for this installation. Events have no order.
void dummyInitiatorEventReceiveCallback(char** targetCategory, char** targetIdentifier, char** payload, void* context) {
    const std::lock_guard<std::mutex> turn(framework);
    BOOST_CHECK(targetCategory);
    BOOST_CHECK(targetIdentifier);
    BOOST_CHECK(payload);
    BOOST_CHECK(context == (void*)0x12345678);
    ++eventCounter;
    free(*targetCategory);
    free(*targetIdentifier);
    free(*payload);
}

BOOST_FIXTURE_TEST_SUITE(initiatorSend, basicInitiatorFixture)

// A request is accepted although nobody need answer it, and leaves the initiator fit for
// use. An answer to it would be taken for the count, so the count is not checked.
BOOST_AUTO_TEST_CASE(initiatorSendPass) {
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send(ident.c_str()));
    getBrokerRepeatCount();
}

// Requests without an answer arrive once each, and before the query sent after them.
BOOST_AUTO_TEST_CASE(initiatorSendRepeat) {
    clearBrokerRepeatCount();
    BOOST_CHECK_EQUAL(0, getBrokerRepeatCount());
    mark("send repeat");
    for (unsigned int i = 0; i < limit; ++i) {
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send("inc_repeat_count"));
    }
    BOOST_CHECK_EQUAL(static_cast<int>(limit), getBrokerRepeatCount());
    mark("send repeat");
}

// The payload comes from the service alone, the uuid from the request alone.
BOOST_AUTO_TEST_CASE(initiatorRepeatStaticResponse) {
    mark("static response");
    for (unsigned long i = 0; i < 10; ++i) {
        uuid = numbered("", i);
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send("static_response"));
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, recv());
        BOOST_CHECK_EQUAL(string("my static payload"), rpayload);
        BOOST_CHECK_EQUAL(uuid, ruuid);
        freeResponse();
    }
    mark("static response");
}

// What goes out comes back unchanged, each time anew.
BOOST_AUTO_TEST_CASE(initiatorRepeatEcho) {
    mark("echoing");
    for (unsigned long i = 0; i < 10; ++i) {
        payload = numbered("CLIENT:echo ", i);
        uuid = numbered("", i);
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send("echo"));
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, recv());
        BOOST_CHECK_EQUAL(payload, rpayload);
        BOOST_CHECK_EQUAL(uuid, ruuid);
        freeResponse();
    }
    mark("echoing");
}

// A receive that does not wait takes a response once it is there. One that misses all five
// tries is not waited for: it spoils the next iteration, which shows that it came late.
BOOST_AUTO_TEST_CASE(initiatorRepeatEchoNonBlocking) {
    mark("echoing non blocking");
    for (unsigned long i = 0; i < 10; ++i) {
        payload = numbered("CLIENT:echo ", i);
        uuid = numbered("", i);
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send("echo"));
        int jj = 5;
        do {
            usleep(10000);
        } while (recv(0) != KAVRI_CORE_STATUS_NO_ERROR && --jj != 0);
        if (jj == 0) {
            BOOST_CHECK(jj != 0);
            continue;
        }
        BOOST_CHECK_EQUAL(payload, rpayload);
        BOOST_CHECK_EQUAL(uuid, ruuid);
        freeResponse();
    }
    mark("echoing non blocking");
}

// Responses reach an installed callback, each once, in the order of the requests.
BOOST_AUTO_TEST_CASE(initiatorRepeatCallback) {
    callbackCounter = 0;
    mark("callback");
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_response_receive_callback(c, dummyInitiatorReceiveCallback, (void*)0x87654321));
    for (unsigned int i = 0; i < limit; ++i) {
        uuid = numbered("", i);
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send("static_response"));
    }

    // One fixed wait, whatever the counter says: a library that is too slow is to
    // fail the count, not to be waited for.
    sleep(1);

    // The removal returns only when no call of the callback is under way, and none
    // will be made: from there on the counter is nobody else's. A response too many
    // has had its second to show.
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_response_receive_callback(c, NULL, NULL));
    BOOST_CHECK_EQUAL(limit, callbackCounter);
    mark("callback");
}

// A response goes to the callback or to a receive, never to whichever happens to come
// first: while a callback is installed every receive is refused, whatever its time-out.
// Nothing is sent here, so there is no response that could be delivered or received.
BOOST_AUTO_TEST_CASE(initiatorFailReceiveWithCallback) {
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_response_receive_callback(c, dummyInitiatorReceiveCallback, (void*)0x87654321));

    // Refused before any waiting: a receive that waits here waits for ever.
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_IPC_FAILED, recv());

    // Refused because of the callback. That there is no response would be another
    // status, and would have the caller try again in vain.
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_IPC_FAILED, recv(0));

    // What was refused leaves the callback in place, to be removed like any other.
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_response_receive_callback(c, NULL, NULL));

    // A refused receive should have stored nothing. A library that did it all the same
    // has handed over the strings with that, and nobody else would release them.
    freeResponse();
}

BOOST_AUTO_TEST_SUITE_END()

// What is published, and whom it reaches: apart from the requests, so that a library
// without a service that publishes can be judged on the rest alone.
BOOST_FIXTURE_TEST_SUITE(initiatorEvent, basicInitiatorFixture)

// Each event that is asked for reaches a subscriber's callback exactly once, in whatever
// order: an event has no uuid that would tell it from the next. Both the subscription and
// the callback are in place before the first event is asked for.
BOOST_AUTO_TEST_CASE(initiatorRepeatEventCallback) {
    eventCounter = 0;
    mark("event callback");
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, eventSubscribe("test"));

    // A context of its own, so that neither callback can be taken for the other.
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_event_receive_callback(c, dummyInitiatorEventReceiveCallback, (void*)0x12345678));
    for (unsigned int i = 0; i < limit; ++i) {
        uuid = numbered("", i);
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send("event"));
    }

    // The same fixed wait. What the service may answer to the commands themselves is
    // left unread, and goes with the initiator: here only events count.
    sleep(1);

    // As above: first no more calls, then the count. The subscription outlasts both: its
    // end must not be what keeps an event too many from being counted, so it comes last,
    // when everything that was going to be delivered has been.
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_ipc_initiator_event_receive_callback(c, NULL, NULL));
    BOOST_CHECK_EQUAL(limit, eventCounter);

    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, eventUnsubscribe("test"));
    mark("event callback");
}

BOOST_AUTO_TEST_SUITE_END()
