// The service goes away while the broker stays.
#define BOOST_TEST_MODULE lostService

#include <boost/test/unit_test.hpp>

#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

struct Setting : WithBroker {
    Setting() : WithBroker({.testService = false}) {}

    TestServiceProcess service{address};
    Initiator initiator{address};

    // Returns when the broker has dealt with all that was sent before.
    void waitForTheBroker() {
        initiator.send("nobody's", "do");
        BOOST_TEST(initiator.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
    }
    // Asks a service that is stopped, so that it has the requests in hand.
    void askInVain(const std::string& command, std::size_t times) {
        service.freeze();
        for (const std::string& uuid : numbers(times)) {
            BOOST_TEST(initiator.send("test", command, uuid) == good);
        }
        waitForTheBroker();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(lostService, Setting)

BOOST_AUTO_TEST_CASE(aBlockedReceiveReturnsWhenTheServiceIsKilled) {
    askInVain("echo", 1);
    BlockedReceive receive(initiator);
    service.kill();
    BOOST_TEST(receive.result().status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
}

BOOST_AUTO_TEST_CASE(aBlockedReceiveReturnsWhenTheServiceStopsAsAsked) {
    Responder responder(address, "work");
    initiator.send("work", "do");
    BOOST_TEST(responder.receive().status == good);
    BlockedReceive receive(initiator);
    responder.end();
    BOOST_TEST(receive.result().status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
}

BOOST_AUTO_TEST_CASE(eachLostRequestFailsOneReceive) {
    askInVain("echo", 5);
    service.kill();
    for (int i = 0; i < 5; ++i) {
        BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
    }
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(eachUndeliverableRequestFailsOneReceive) {
    service.kill();
    BOOST_TEST(eventually([this] {
        initiator.echo("0");
        return initiator.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    }));
    BOOST_TEST(initiator.echoAll(numbers(5)) == 0U);
    for (int i = 0; i < 5; ++i) {
        BOOST_TEST(initiator.receive(-1).status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
    }
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE(lostIncrementsFailNoLaterReceive) {
    askInVain("inc_repeat_count", 10);
    service.kill();
    service.restart();
    for (const std::string& uuid : numbers(3)) {
        BOOST_TEST(initiator.echoes(uuid));
    }
}

BOOST_AUTO_TEST_CASE(lostIncrementsDoNotFailAReceiveThatIsBlockedForALaterRequest) {
    Responder worker(address, "work");
    askInVain("inc_repeat_count", 10);
    initiator.send("work", "do", "later");
    const Message request = worker.receive();
    BlockedReceive receive(initiator);
    service.kill();
    // The broker has told of the loss when nobody serves the category any more.
    Initiator other(address);
    BOOST_TEST(eventually([&] {
        other.echo("0");
        return other.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    }));
    BOOST_TEST(!receive.hasReturned());
    worker.answer(request, "done");
    BOOST_TEST((receive.result().uuid == "later"));
}

BOOST_AUTO_TEST_CASE(aLostRequestDoesNotReachTheNextService) {
    askInVain("inc_repeat_count", 10);
    service.kill();
    service.restart();
    initiator.send("test", "get_repeat_count");
    BOOST_TEST((initiator.receive(-1).payload == "0"));
}

BOOST_AUTO_TEST_CASE(subscribersGetTheEventsOfTheNextService) {
    Inbox inbox;
    initiator.onEvent(Inbox::event, &inbox);
    initiator.subscribe("test");
    service.restart();
    initiator.send("test", "event", "0", "of the next");
    BOOST_TEST(inbox.waitFor(1));
}

BOOST_AUTO_TEST_CASE(theServiceComesBackToABrokerStartedAnew) {
    broker.restart();
    BOOST_TEST(eventually([this] {
        initiator.echo("0");
        return initiator.receive().status == good;
    }));
    BOOST_TEST(service.stop());
}

BOOST_AUTO_TEST_CASE(theServiceStopsThoughTheBrokerIsGone) {
    broker.kill();
    BOOST_TEST(service.logs("lost the connection"));
    BOOST_TEST(service.stop());
}

BOOST_AUTO_TEST_SUITE_END()
