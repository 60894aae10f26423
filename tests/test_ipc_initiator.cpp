// The conformance module for the initiator side of the kavri core library.
//
// It proves, case by case, that a core library brings an initiator up and down,
// sends requests, hands out the responses in each of the three ways (blocking,
// polling, callback), refuses a receive that a callback rules out, and delivers
// events. The library is a black box behind the twelve C functions of
// <kavri/ipc.h>; whichever one the loader finds is the one that is judged.
//
// At the other end of the library's broker there must be a test service for the
// category "test", which knows these commands:
//
//   echo              answers with the request's own payload
//   static_response   answers "my static payload" to whatever payload
//   clr_repeat_count  sets its counter to 0; no answer
//   inc_repeat_count  adds 1 to its counter; no answer
//   get_repeat_count  answers with the counter in decimal
//   event             publishes one event on "test"
//
// Answers carry their request's uuid and come in the order of the requests. An
// answer that is owed and never comes makes a blocking case wait for ever; a
// limit to that is for whoever runs the module to set.
//
// A check names what is expected first, and a failed one does not end its case:
// the log then shows all that is wrong, not only the first of it.
#define BOOST_TEST_DYN_LINK
#define BOOST_TEST_MODULE testIpcInitiator
#include <kavri/ipc.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <sstream>
#include <string>

using std::string;

// How many requests a repeating case sends, and so how many must arrive.
static const unsigned int limit = 10;

// Calls of the two callbacks below. Plain integers, because a case touches its
// counter only while no callback is installed.
unsigned int callbackCounter = 0;
unsigned int eventCounter = 0;

// Marks where a repeating case begins and ends its run. The label is formed and
// dropped: a place to hook in a trace or a clock when a run is looked into.
static void mark(const string& /*label*/) {}

// The text before it, if any, and the number in plain decimal.
static string numbered(const char* text, unsigned long number) {
    std::ostringstream stream;
    stream << text << number;
    return stream.str();
}

// For the length of one case: a core library that is up, with logging and an initiator;
// what a request carries unless the case says otherwise; the response received last.
struct basicInitiatorFixture {
    kavri_core_ipc_initiator* c = NULL;

    string cat = "test";
    string ident = "initiator";
    string uuid = "0";
    string payload = "this is my payload";

    // Each is null or owns a string that the library handed out. Whatever releases one
    // sets it to null at once.
    char* rcat = NULL;
    char* rident = NULL;
    char* ruuid = NULL;
    char* rpayload = NULL;

    kavri_core_logging_cookie logCookie = NULL;

    // Without an initiator there is nothing to try: only that ends a case at once. The
    // destructor then does not run, so nothing is ended.
    basicInitiatorFixture() {
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, kavri_core_init());
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR,
                          kavri_core_logging_init("ipcInitiatorTest", &logCookie));
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR,
                          kavri_core_ipc_initiator_init(logCookie, NULL, &c));
        BOOST_REQUIRE(c != NULL);
    }

    ~basicInitiatorFixture() {
        kavri_core_ipc_deinit(c);
        kavri_core_logging_deinit(logCookie);
        kavri_core_deinit();
        freeResponse();
    }

    kavri_core_status send(const char* targetIdentifier) {
        return kavri_core_ipc_initiator_command_send(c, cat.c_str(), targetIdentifier, uuid.c_str(),
                                                     payload.c_str());
    }

    // Waits without limit unless told otherwise. The response held before must
    // have been released: the library does not do it.
    kavri_core_status recv(int timeout = -1) {
        return kavri_core_ipc_initiator_response_receive(c, timeout, &rcat, &rident, &ruuid,
                                                         &rpayload);
    }

    // A library may let a subscription take effect a little after the call, so
    // the pause is part of subscribing.
    kavri_core_status eventSubscribe(const char* category) {
        const kavri_core_status status = kavri_core_ipc_initiator_event_subscribe(c, category);
        usleep(10000);
        return status;
    }

    kavri_core_status eventUnsubscribe(const char* category) {
        return kavri_core_ipc_initiator_event_unsubscribe(c, category);
    }

    void freeResponse() {
        for (char** text : {&rcat, &rident, &ruuid, &rpayload}) {
            free(*text);
            *text = NULL;
        }
    }

    // The log quotes these calls; a break behind "(" would put a blank into them.
    // clang-format off

    void clearBrokerRepeatCount() {
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR,
            kavri_core_ipc_initiator_command_send(c, "test", "clr_repeat_count", "0", " "));
    }

    // The service's counter; -1 when the answer has no payload. Whatever response
    // comes first is taken for the answer.
    int getBrokerRepeatCount() {
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR,
            kavri_core_ipc_initiator_command_send(c, "test", "get_repeat_count", "0", " "));
        BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR,
            kavri_core_ipc_initiator_response_receive(c, -1, &rcat, &rident, &ruuid, &rpayload));
        const int count = rpayload != NULL ? static_cast<int>(strtol(rpayload, NULL, 10)) : -1;
        freeResponse();
        return count;
    }

    // clang-format on
};

// Takes a response: complete, for this installation, and the next in order. Its
// uuid is its number, so a lost, doubled or overtaken one shows.
void dummyInitiatorReceiveCallback(char** targetCategory, char** targetIdentifier, char** uuid,
                                   char** payload, void* context) {
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

// Takes an event: complete and for this installation. Events are counted, not
// put in order.
void dummyInitiatorEventReceiveCallback(char** targetCategory, char** targetIdentifier,
                                        char** payload, void* context) {
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

// A request is accepted although nobody need answer it, and leaves the initiator
// fit for use. If it is answered, that answer is the one taken here for the
// count, so the count says nothing.
BOOST_AUTO_TEST_CASE(initiatorSendPass) {
    BOOST_CHECK_EQUAL(KAVRI_CORE_STATUS_NO_ERROR, send(ident.c_str()));
    getBrokerRepeatCount();
}

// Requests that get no answer arrive nevertheless: each once, and all of them before
// the query that is sent after them.
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

// A receive that does not wait takes nothing until the response is there, and
// takes it then. A response that misses all five tries is not waited for: it
// spoils the next iteration, which shows that it came, and came late.
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

// Readers of the log know the checks of the callback cases by their lines, so those
// stay where they are; and as compilers differ over which line a broken check is on,
// none is broken from here on. NULL is what makes the log say "__null".
// clang-format off

// Responses reach an installed callback, each once and in the order of the
// requests, with the context it was installed with.
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
