// Whom events reach, and the service within the broker, which answers at once.
#define BOOST_TEST_MODULE routerEvents

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "broker/hosted_test_service.h"
#include "broker/routing/router.h"
#include "process/temporary_folder.h"
#include "support/conversation.h"

using namespace kavri::tests;
using kavri::wire::largeFrameBytes;

BOOST_AUTO_TEST_SUITE(events)

BOOST_FIXTURE_TEST_CASE(anEventReachesEverySubscriberAndNobodyElse, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    Session& elsewhere = subscriber("elsewhere");
    say(service, publish("news"));
    BOOST_TEST(hear(first) == event("news"));
    BOOST_TEST(hear(second) == event("news"));
    BOOST_TEST(hear(elsewhere) == "");
    BOOST_TEST(hear(caller) == "");
    BOOST_TEST(hear(service) == "");
}

BOOST_FIXTURE_TEST_CASE(eventsComeInTheOrderPublished, Conversation) {
    Session& watcher = subscriber("test");
    say(service, publish("one"));
    say(service, publish("two"));
    BOOST_TEST(hear(watcher) == event("one") + "\n" + event("two"));
}

BOOST_FIXTURE_TEST_CASE(whatIsReadAtOnceIsDeliveredInOrder, Conversation) {
    say(caller, subscribe(5));
    hear(caller);
    const std::uint64_t token = ask(7);
    sayBytes(service, encode(publish("one")) + encode(publish("two")) +
                          encode(publish("false news", "elsewhere")) + encode(publish("three")) +
                          encode(response(token)) + encode(publish("four")) + "no frame" +
                          std::string(32, '!'));
    BOOST_TEST(hear(caller) == event("one") + "\n" + event("two") + "\n" + event("three") +
                                   "\nresponse 7" + fields + "p\n" + event("four"));
    BOOST_TEST(service.isClosing);
}

BOOST_FIXTURE_TEST_CASE(aNulBehindEventsThatAreReadAtOnceIsFound, Conversation) {
    Session& watcher = subscriber("test");
    sayBytes(service, encode(publish("one")) + encode(publish(std::string_view("t\0wo", 4))) +
                          encode(publish("three")));
    BOOST_TEST(hear(watcher) == event("one"));
    BOOST_TEST(closing(service) == "status 9: malformed: a field has a NUL byte in it");
}

BOOST_FIXTURE_TEST_CASE(theAcknowledgementComesBeforeTheFirstEvent, Conversation) {
    say(caller, subscribe(5));
    say(service, publish("news"));
    BOOST_TEST(hear(caller) == "acknowledgement 5\n" + event("news"));
}

BOOST_FIXTURE_TEST_CASE(subscribingTwiceIsSubscribingOnce, Conversation) {
    say(caller, subscribe(5));
    say(caller, subscribe(6));
    BOOST_TEST(hear(caller) == "acknowledgement 5\nacknowledgement 6");
    say(service, publish("news"));
    BOOST_TEST(hear(caller) == event("news"));
    Session& other = subscriber("test");
    say(caller, unsubscribe(7));
    BOOST_TEST(hear(caller) == "acknowledgement 7");
    say(service, publish("more"));
    BOOST_TEST(hear(caller) == "");
    BOOST_TEST(hear(other) == event("more"));
}

BOOST_FIXTURE_TEST_CASE(endingASubscriptionThatIsNotThereChangesNothing, Conversation) {
    Session& watcher = subscriber("test");
    say(caller, unsubscribe(7));
    say(caller, unsubscribe(8, "nobody"));
    BOOST_TEST(hear(caller) == "acknowledgement 7\nacknowledgement 8");
    say(service, publish("news"));
    BOOST_TEST(hear(watcher) == event("news"));
}

BOOST_FIXTURE_TEST_CASE(aSubscriberThatLeftGetsNothing, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    leave(first);
    Session& newcomer = initiator();  // in the place of the one that left
    say(service, publish("news"));
    BOOST_TEST(hear(newcomer) == "");
    BOOST_TEST(hear(second) == event("news"));
}

BOOST_FIXTURE_TEST_CASE(subscriptionsHaveALimit, Conversation) {
    for (const char* category : {"one", "two"}) {
        say(caller, subscribe(1, category));
        BOOST_TEST(hear(caller) == "acknowledgement 1");
    }
    say(caller, subscribe(2, "three"));
    BOOST_TEST(hear(caller) == "acknowledgement 2 status=14");
    say(caller, subscribe(3, "two"));  // there already
    BOOST_TEST(hear(caller) == "acknowledgement 3");
    say(caller, unsubscribe(4, "one"));
    say(caller, subscribe(5, "three"));
    BOOST_TEST(hear(caller) == "acknowledgement 4\nacknowledgement 5");
}

BOOST_FIXTURE_TEST_CASE(onlyWhoServesACategoryPublishesItsEvents, Conversation) {
    Session& watcher = subscriber("test");
    Session& elsewhere = responder("elsewhere");
    Session& idle = join("responder");
    say(elsewhere, publish("false news"));
    say(idle, publish("false news"));
    say(service, publish("false news", "elsewhere"));
    BOOST_TEST(hear(watcher) == "");
    BOOST_TEST(notes.size() == 3U);
    BOOST_TEST(notes.at(0) == "published an event of a category that it does not serve");
}

BOOST_FIXTURE_TEST_CASE(anEventThatNobodyWantsGoesNowhere, Conversation) {
    BOOST_TEST(say(service, publish("news")) == nullptr);
    BOOST_TEST(hear(service) == "");
    BOOST_TEST(notes.empty());
}

BOOST_FIXTURE_TEST_CASE(manySmallEventsReadAtOnceAreHeldOnceForAll, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    std::string bytes;
    std::string expected;
    for (int i = 0; bytes.size() < largeFrameBytes; ++i) {
        const std::string payload = std::to_string(i);
        bytes += encode(publish(payload));
        expected += (i == 0 ? "" : "\n") + event(payload);
    }
    sayBytes(service, bytes);
    BOOST_TEST(firstBytes(first) == firstBytes(second));
    BOOST_TEST(hear(first) == expected);
    BOOST_TEST(hear(second) == expected);
}

// Copying a small frame is cheaper than sharing it; a large one is never copied.
BOOST_FIXTURE_TEST_CASE(aLargeEventIsHeldOnceForAll, Conversation) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    const std::size_t around = encode(publish("")).size();
    for (const std::size_t size : {largeFrameBytes - 1, largeFrameBytes, largeFrameBytes + 1}) {
        const std::string payload(size - around, 'e');
        say(service, publish(payload));
        BOOST_TEST((firstBytes(first) == firstBytes(second)) == (size >= largeFrameBytes));
        const std::string bytes = hearBytes(first);
        BOOST_TEST((framesIn(bytes).at(0)[Field::payload] == payload));
        BOOST_TEST((framesIn(bytes).at(0).type == FrameType::event));
        BOOST_TEST((hearBytes(second) == bytes));
    }
}

BOOST_AUTO_TEST_SUITE_END()

// A service within the broker.
BOOST_AUTO_TEST_SUITE(embedded)

struct Embedded : ScriptedBroker {
    Embedded() : ScriptedBroker(smallLimits()) { router.embed("test", service); }

    std::vector<std::string> unknown;
    kavri::broker::HostedTestService service{
        [this](std::string_view identifier) { unknown.emplace_back(identifier); }};
    Session& caller = initiator();

    Session* command(Session& from, std::uint64_t token, std::string_view identifier,
                     std::string_view payload = "p") {
        return say(from, makeFrame(FrameType::request, token, {"test", identifier, "u", payload}));
    }
};

BOOST_FIXTURE_TEST_CASE(itAnswersAtOnce, Embedded) {
    command(caller, 7, "echo", "hi");
    BOOST_TEST(hear(caller) == "response 7 category=test identifier=echo uuid=u payload=hi");
    BOOST_TEST(caller.asInitiator.pendingRequests == 0U);
}

BOOST_FIXTURE_TEST_CASE(anEmptyAnswerHasAPayload, Embedded) {
    command(caller, 7, "echo", "");
    command(caller, 8, "nonsense");
    BOOST_TEST(hear(caller) ==
               "response 7 category=test identifier=echo uuid=u payload=\n"
               "response 8 category=test identifier=nonsense uuid=u payload=");
    BOOST_TEST(unknown == std::vector<std::string>{"nonsense"}, boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(aCommandWithoutAnswerIsCompleted, Embedded) {
    command(caller, 7, "inc_repeat_count");
    command(caller, 8, "get_repeat_count");
    BOOST_TEST(hear(caller) ==
               "completion 7\n"
               "response 8 category=test identifier=get_repeat_count uuid=u payload=1");
}

BOOST_FIXTURE_TEST_CASE(itsEventReachesTheSubscribersBeforeTheCompletion, Embedded) {
    Session& watcher = subscriber("test");
    say(caller, subscribe(1));
    command(caller, 7, "event", "news");
    BOOST_TEST(hear(watcher) == event("news"));
    BOOST_TEST(hear(caller) == "acknowledgement 1\n" + event("news") + "\ncompletion 7");
}

BOOST_FIXTURE_TEST_CASE(itsLargeEventIsHeldOnceForAll, Embedded) {
    Session& first = subscriber("test");
    Session& second = subscriber("test");
    const std::string payload(20'000, 'e');
    command(caller, 7, "event", payload);
    BOOST_TEST(firstBytes(first) == firstBytes(second));
    const std::string bytes = hearBytes(second);
    BOOST_TEST((framesIn(bytes).at(0)[Field::payload] == payload));
}

BOOST_FIXTURE_TEST_CASE(itsEventWaitsForASlowSubscriber, Embedded) {
    Session& slow = subscriber("test");
    slow.sendQueue.appendCopy(std::string(threeQuarters, 'f'));
    BOOST_TEST(command(caller, 7, "event", "news") == &slow);
    BOOST_TEST(hear(caller) == "");
    slow.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(hear(caller) == "completion 7");
    BOOST_TEST(hear(slow) == event("news"));
}

// The request whose event waits is handled a second time.
BOOST_FIXTURE_TEST_CASE(itsRecordHasEachRequestOnce, Embedded) {
    const kavri::process::TemporaryFolder folder;
    service.recordTo(folder / "record");
    Session& slow = subscriber("test");
    slow.sendQueue.appendCopy(std::string(threeQuarters, 'f'));
    BOOST_TEST(command(caller, 7, "event", "news") == &slow);
    slow.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    Session& other = initiator();
    command(other, 8, "echo", "hi");
    std::ifstream file(folder / "record");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    BOOST_REQUIRE_EQUAL(lines.size(), 2U);
    BOOST_TEST(lines[0].find(R"("identifier":"event","uuid":"u","payload":"news"})") !=
               std::string::npos);
    BOOST_TEST(lines[1].find(R"("answer":{"category":"test","identifier":"echo","uuid":"u",)"
                             R"("payload":"hi"})") != std::string::npos);
    const auto connection = [](const std::string& line) { return line.substr(0, line.find(',')); };
    BOOST_TEST(connection(lines[0]) != connection(lines[1]));
}

BOOST_FIXTURE_TEST_CASE(itAnswersWhereItsRecordCannotBeWritten, Embedded) {
    service.recordTo("/dev/full");
    command(caller, 7, "echo", "hi");
    command(caller, 8, "echo", "ho");
    BOOST_TEST(hear(caller) ==
               "response 7 category=test identifier=echo uuid=u payload=hi\n"
               "response 8 category=test identifier=echo uuid=u payload=ho");
}

BOOST_FIXTURE_TEST_CASE(nobodyElseMayServeItsCategory, Embedded) {
    Session& late = join("responder");
    say(late, registration(1));
    BOOST_TEST(hear(late) == "acknowledgement 1 status=15");
    say(late, publish("false news"));
    BOOST_TEST(notes.size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(itStaysWhenItsLastSubscriberLeaves, Embedded) {
    Session& watcher = subscriber("test");
    leave(watcher);
    command(caller, 7, "echo", "still here");
    BOOST_TEST(hear(caller) ==
               "response 7 category=test identifier=echo uuid=u payload=still here");
}

BOOST_AUTO_TEST_SUITE_END()
