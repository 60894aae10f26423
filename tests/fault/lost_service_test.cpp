// The service goes away while the broker stays.
#define BOOST_TEST_MODULE lostService

#include <boost/test/unit_test.hpp>

#include "process/temporary_folder.h"
#include "support/client.h"
#include "support/service_process.h"

using namespace kavri::tests;

namespace {

struct Setting {
    kavri::process::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
    BrokerProcess broker{address};
    TestServiceProcess service{address};
    Library library;
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
            BOOST_TEST(initiator.send("test", command, uuid) == KAVRI_CORE_STATUS_NO_ERROR);
        }
        waitForTheBroker();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(lostService, Setting)

BOOST_AUTO_TEST_CASE(aBlockedReceiveReturnsWhenTheServiceIsKilled) {
    askInVain("echo", 1);
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    BlockedCall receive([&] { status = initiator.receive(-1).status; });
    BOOST_TEST(receive.sleeps());
    service.kill();
    receive.join();
    BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
}

BOOST_AUTO_TEST_CASE(aBlockedReceiveReturnsWhenTheServiceStopsAsAsked) {
    Responder responder(address, "work");
    initiator.send("work", "do");
    BOOST_TEST(responder.receive().status == KAVRI_CORE_STATUS_NO_ERROR);
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    BlockedCall receive([&] { status = initiator.receive(-1).status; });
    BOOST_TEST(receive.sleeps());
    responder.end();
    receive.join();
    BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
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
    for (const std::string& uuid : numbers(5)) {
        BOOST_TEST(initiator.echo(uuid) == KAVRI_CORE_STATUS_NO_ERROR);
    }
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
        initiator.echo(uuid);
        const Message response = initiator.receive(-1);
        BOOST_TEST(response.status == KAVRI_CORE_STATUS_NO_ERROR);
        BOOST_TEST((response.uuid == uuid));
    }
}

BOOST_AUTO_TEST_CASE(lostIncrementsDoNotFailAReceiveThatIsBlockedForALaterRequest) {
    Responder worker(address, "work");
    askInVain("inc_repeat_count", 10);
    initiator.send("work", "do", "later");
    const Message request = worker.receive();
    Text received;
    BlockedCall receive([&] { received = initiator.receive(-1).uuid; });
    BOOST_TEST(receive.sleeps());
    service.kill();
    // The broker has told of the loss when nobody serves the category any more.
    Initiator other(address);
    BOOST_TEST(eventually([&] {
        other.echo("0");
        return other.receive().status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    }));
    BOOST_TEST(!receive.hasReturned());
    worker.answer(request, "done");
    receive.join();
    BOOST_TEST((received == "later"));
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
        return initiator.receive().status == KAVRI_CORE_STATUS_NO_ERROR;
    }));
    BOOST_TEST(service.stop());
}

BOOST_AUTO_TEST_CASE(theServiceStopsThoughTheBrokerIsGone) {
    broker.kill();
    BOOST_TEST(service.logs("lost the connection"));
    BOOST_TEST(service.stop());
}

BOOST_AUTO_TEST_SUITE_END()
