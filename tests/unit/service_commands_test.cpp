// What the test service answers to each command.
#define BOOST_TEST_MODULE serviceCommands

#include <boost/test/unit_test.hpp>
#include <string>
#include <vector>

#include "test_service/test_service.h"

using kavri::test_service::TestService;

namespace {

struct Service {
    std::vector<std::string> unknown;
    TestService service{[this](std::string_view identifier) { unknown.emplace_back(identifier); }};

    // "answer ...", "event" or "silence".
    std::string ask(std::string_view identifier, std::string_view payload = "ignored") {
        const TestService::Reaction reaction = service.handle(identifier, payload);
        BOOST_TEST(!(reaction.answers && reaction.publishes));
        return reaction.answers     ? "answer " + std::string(reaction.payload)
               : reaction.publishes ? "event"
                                    : "silence";
    }
};

}  // namespace

BOOST_AUTO_TEST_CASE(itServesTestAndItsEventsAreCalledEvent) {
    BOOST_TEST(kavri::test_service::category == "test");
    BOOST_TEST(kavri::test_service::eventIdentifier == "event");
}

BOOST_FIXTURE_TEST_CASE(echoGivesThePayloadBack, Service) {
    BOOST_TEST(ask("echo", "some payload") == "answer some payload");
    const std::string large(1 << 20, 'x');
    BOOST_TEST((ask("echo", large) == "answer " + large));
}

BOOST_FIXTURE_TEST_CASE(anEmptyEchoIsAnsweredWithAPayloadThatIsThere, Service) {
    const TestService::Reaction reaction = service.handle("echo", "");
    BOOST_TEST(reaction.answers);
    BOOST_TEST(reaction.payload.empty());
    BOOST_TEST((reaction.payload.data() != nullptr));
}

BOOST_FIXTURE_TEST_CASE(theStaticResponseIsAlwaysTheSame, Service) {
    BOOST_TEST(ask("static_response", "one") == "answer my static payload");
    BOOST_TEST(ask("static_response", "two") == "answer my static payload");
}

BOOST_FIXTURE_TEST_CASE(theCounterBeginsAtZeroAndCountsIncrements, Service) {
    BOOST_TEST(ask("get_repeat_count") == "answer 0");
    for (int i = 0; i < 12; ++i) {
        BOOST_TEST(ask("inc_repeat_count") == "silence");
    }
    BOOST_TEST(ask("get_repeat_count") == "answer 12");
    BOOST_TEST(ask("get_repeat_count") == "answer 12");
}

BOOST_FIXTURE_TEST_CASE(clearingSetsTheCounterToZero, Service) {
    ask("inc_repeat_count");
    BOOST_TEST(ask("clr_repeat_count") == "silence");
    BOOST_TEST(ask("get_repeat_count") == "answer 0");
}

BOOST_FIXTURE_TEST_CASE(otherCommandsLeaveTheCounterAlone, Service) {
    ask("inc_repeat_count");
    for (const char* command : {"echo", "static_response", "event", "something else"}) {
        ask(command);
    }
    BOOST_TEST(ask("get_repeat_count") == "answer 1");
}

BOOST_FIXTURE_TEST_CASE(eventIsPublishedAndNotAnswered, Service) {
    BOOST_TEST(ask("event") == "event");
}

BOOST_FIXTURE_TEST_CASE(anUnknownCommandIsAnsweredEmptyAndToldOnce, Service) {
    BOOST_TEST(ask("no such command") == "answer ");
    BOOST_TEST(ask("no such command") == "answer ");
    BOOST_TEST(ask("ECHO") == "answer ");
    BOOST_TEST(ask("") == "answer ");
    const std::vector<std::string> expected = {"no such command", "ECHO", ""};
    BOOST_TEST(unknown == expected, boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(anUnknownCommandHasAPayloadThatIsThere, Service) {
    BOOST_TEST((service.handle("no such command", "p").payload.data() != nullptr));
}

BOOST_FIXTURE_TEST_CASE(knownCommandsAreNotToldAsUnknown, Service) {
    for (const char* command : {"echo", "static_response", "get_repeat_count", "clr_repeat_count",
                                "inc_repeat_count", "event"}) {
        ask(command);
    }
    BOOST_TEST(unknown.empty());
}

BOOST_FIXTURE_TEST_CASE(inventedNamesAreToldUpToALimitAndAnsweredBeyondIt, Service) {
    for (int i = 0; i < 1000; ++i) {
        BOOST_TEST(ask("invented " + std::to_string(i)) == "answer ");
    }
    BOOST_TEST(unknown.size() == 100U);
}
