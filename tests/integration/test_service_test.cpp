// The test service as its callers see it: the same whether the broker hosts it
// or it is a process of its own.
#define BOOST_TEST_MODULE testService

#include <boost/mpl/list.hpp>
#include <boost/test/unit_test.hpp>

#include "support/with_broker.h"

using namespace kavri::tests;

namespace {

struct Embedded : WithBroker {
    ServiceProcess& service() { return broker; }
};

struct Separate : WithBroker {
    Separate() : WithBroker({.testService = false}) {}

    TestServiceProcess process{address};

    ServiceProcess& service() { return process; }
};

using Kinds = boost::mpl::list<Embedded, Separate>;

// A service of either kind, and an initiator.
template <typename Kind>
struct Setting : Kind {
    Initiator initiator{this->address};

    Text ask(const std::string& command, const std::string& payload = " ") {
        initiator.send("test", command, "0", payload);
        return initiator.receive().payload;
    }
    Text count() { return ask("get_repeat_count"); }
    void tell(const std::string& command) { initiator.send("test", command, "0", " "); }
};

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace

// What each command does is the service's own test; here each is asked once.
BOOST_AUTO_TEST_CASE_TEMPLATE(echoRepeatsPayloadAndUuid, Kind, Kinds) {
    Setting<Kind> setting;
    for (const std::string& uuid : numbers(10)) {
        BOOST_TEST(setting.initiator.echoes(uuid, "CLIENT:echo " + uuid));
    }
    std::string bytes;
    for (int byte = 1; byte <= 255; ++byte) {
        bytes += static_cast<char>(byte);
    }
    BOOST_TEST(setting.initiator.echoes("no text", bytes));
    BOOST_TEST(setting.initiator.echoes("empty", ""));
    BOOST_TEST(setting.initiator.echoes("large", std::string(1'000'000, 'x')));
}

BOOST_AUTO_TEST_CASE_TEMPLATE(responsesComeInTheOrderOfTheRequests, Kind, Kinds) {
    Setting<Kind> setting;
    for (const std::string& uuid : numbers(10)) {
        setting.initiator.send("test", "static_response", uuid);
    }
    for (const std::string& uuid : numbers(10)) {
        BOOST_TEST(setting.initiator.receive().text() ==
                   "test static_response " + uuid + " my static payload");
    }
}

BOOST_AUTO_TEST_CASE_TEMPLATE(theCounterIsClearedCountedAndReadWithoutChange, Kind, Kinds) {
    Setting<Kind> setting;
    BOOST_TEST((setting.count() == "0"));
    for (int i = 0; i < 10; ++i) {
        setting.tell("inc_repeat_count");
    }
    BOOST_TEST((setting.count() == "10"));
    BOOST_TEST((setting.count() == "10"));
    setting.tell("clr_repeat_count");
    BOOST_TEST((setting.count() == "0"));
    BOOST_TEST(setting.initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

BOOST_AUTO_TEST_CASE_TEMPLATE(theCounterIsOneForAllInitiators, Kind, Kinds) {
    Setting<Kind> setting;
    setting.tell("inc_repeat_count");
    BOOST_TEST((setting.count() == "1"));
    Initiator other(setting.address);
    other.send("test", "get_repeat_count");
    BOOST_TEST((other.receive().payload == "1"));
}

BOOST_AUTO_TEST_CASE_TEMPLATE(unknownCommandsAreAnsweredEmptyAndLoggedOnce, Kind, Kinds) {
    Setting<Kind> setting;
    for (const char* command : {"initiator", "initiator", "Echo", "initiator"}) {
        setting.initiator.send("test", command, "9");
        BOOST_TEST(setting.initiator.receive().text() == std::string("test ") + command + " 9 ");
    }
    BOOST_TEST(setting.service().logs("\"Echo\""));
    const std::string log = setting.service().log();
    BOOST_TEST(occurrences(log, "unknown") == 2U);
    BOOST_TEST(occurrences(log, "\"initiator\"") == 1U);
    BOOST_TEST(occurrences(log, "\n") == 3U);  // with the line that says it is ready
}

BOOST_AUTO_TEST_CASE_TEMPLATE(eachEventCommandIsOneEventAndNoAnswer, Kind, Kinds) {
    Setting<Kind> setting;
    Inbox events;
    setting.initiator.onEvent(Inbox::event, &events);
    setting.initiator.subscribe("test");
    for (const std::string& number : numbers(10)) {
        setting.initiator.send("test", "event", number, number);
    }
    BOOST_TEST(setting.initiator.echoes("next"));
    BOOST_TEST(setting.initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    BOOST_TEST(events.waitFor(10));
    BOOST_TEST((events.payloads() == numbers(10)));
    BOOST_TEST((events.messages().front().category == "test"));
    BOOST_TEST(events.messages().front().identifier.has_value());
}

BOOST_AUTO_TEST_CASE_TEMPLATE(initiatorsComeAndGoAndEachGetsItsOwnAnswers, Kind, Kinds) {
    Setting<Kind> setting;
    for (const std::string& uuid : numbers(20)) {
        Initiator one(setting.address);
        Initiator other(setting.address);
        one.echo(uuid, "one");
        other.echo(uuid, "other");
        BOOST_TEST((other.receive().payload == "other"));
        BOOST_TEST((one.receive().payload == "one"));
        one.echo("left behind");
    }
}

BOOST_AUTO_TEST_CASE_TEMPLATE(theServiceStopsCleanlyWhenAsked, Kind, Kinds) {
    Setting<Kind> setting;
    BOOST_TEST((setting.ask("echo", "alive") == "alive"));
    BOOST_TEST(setting.service().stop());
}
