// What waits for a slow link, a slow responder or a slow initiator of another machine is
// bounded, holds up nobody else, and is told by the documented statuses.
#define BOOST_TEST_MODULE link_slow

#include <boost/test/unit_test.hpp>

#include "support/conversation.h"
#include "support/linked_broker.h"

using namespace kavri::tests;
using namespace std::chrono_literals;
using kavri::broker::Channel;
using kavri::broker::linkUser;

namespace {

struct Outcomes {
    std::size_t responses = 0;
    std::map<std::uint16_t, std::size_t> notices;
};

Outcomes outcomesIn(std::string_view bytes) {
    Outcomes outcomes;
    for (const Frame& frame : framesIn(bytes)) {
        if (frame.type == FrameType::response) {
            ++outcomes.responses;
        } else if (frame.type == FrameType::notice) {
            ++outcomes.notices[frame.status];
        }
    }
    return outcomes;
}

struct Loaded : LinkedWorld {
    LinkedBroker& here = start();
    LinkedBroker& there = start();
    Program& caller = here.initiator();
    Program& service = there.responder("test");
    const std::string large = std::string(10000, 'l');
    std::uint64_t sent = 0;

    Loaded() { settle(); }

    // As much as the caller may send, for so long.
    void flood(std::chrono::milliseconds time) {
        for (auto i = 0ms; i < time; i += 1ms) {
            if (caller.maySpeak()) {
                here.say(caller, request(++sent, large));
            }
            run(1ms, 1ms);
            BOOST_REQUIRE(here.userBytes(someUser) < 12 * kavri::wire::mebibyte);
            BOOST_REQUIRE(there.userBytes(someUser) < 12 * kavri::wire::mebibyte);
            BOOST_REQUIRE(there.userBytes(linkUser) < 12 * kavri::wire::mebibyte);
            BOOST_REQUIRE(here.bus.queuedBytes() < 2 * kavri::wire::mebibyte);
            BOOST_REQUIRE(there.bus.queuedBytes() < 2 * kavri::wire::mebibyte);
        }
    }
    void answerAll() {
        const std::string bytes = std::exchange(service.heard, {});
        for (const Frame& frame : framesIn(bytes)) {
            if (frame.type == FrameType::request) {
                there.say(service, response(frame.token));
            }
        }
    }
    void requireThatNothingIsLeft() {
        here.stop();
        there.stop();
        for (LinkedBroker* broker : {&here, &there}) {
            BOOST_TEST(broker->userBytes(someUser) == 0U);
            BOOST_TEST(broker->userBytes(otherUser) == 0U);
            BOOST_TEST(broker->userBytes(linkUser) == 0U);
        }
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(aLinkThatTakesNothingIsNotWaitedFor, Loaded) {
    here.say(caller, request(++sent));
    settle();
    here.bus.mostFlushedBytes = 0;
    flood(1500ms);
    const std::string bytes = std::exchange(caller.heard, {});
    const Outcomes outcomes = outcomesIn(bytes);
    BOOST_TEST(outcomes.notices.size() == 1U);
    BOOST_TEST(outcomes.notices.contains(KAVRI_CORE_STATUS_IPC_OVERLOADED));
    BOOST_TEST(caller.maySpeak());
    // The other side hears nothing for as long, and ends the channel.
    here.bus.mostFlushedBytes = SIZE_MAX;
    run(3s);
    answerAll();
    run(100ms);
    const std::string rest = std::exchange(caller.heard, {});
    const Outcomes restOutcomes = outcomesIn(rest);
    std::size_t all = outcomes.notices.at(KAVRI_CORE_STATUS_IPC_OVERLOADED);
    all += restOutcomes.responses;
    for (const auto& [status, count] : restOutcomes.notices) {
        all += count;
    }
    BOOST_TEST(all == sent);
    requireThatNothingIsLeft();
}

BOOST_FIXTURE_TEST_CASE(aResponderThatDoesNotReadHoldsUpItsOwnChannel, Loaded) {
    // Another responder on the same machine, and one who asks it.
    LinkedBroker& third = start(linkOf({"other"}, {}));
    Program& otherService = third.responder("other");
    LinkedBroker& fourth = start(linkOf({}, {"*"}));
    Program& otherCaller = fourth.initiator();
    settle();
    service.reads = false;
    flood(3s);
    BOOST_TEST(sent > 500U);
    fourth.say(otherCaller, request(1, "p", "other"));
    settle();
    BOOST_REQUIRE(framesIn(otherService.heard).size() == 1U);
    third.say(otherService, response(framesIn(otherService.heard).at(0).token));
    settle();
    BOOST_TEST(fourth.hear(otherCaller) == "response 1" + fields + "p");
    // What is sent and not handled by the other side stays within the window.
    here.link->channels().forEach([](const Channel& channel) {
        BOOST_TEST(channel.bytesInTransit() <= Channel::windowBytes + 20000);
    });
    there.resumeReading(service);
    run(1s);
    answerAll();
    run(1s);
    const std::string bytes = std::exchange(caller.heard, {});
    const Outcomes outcomes = outcomesIn(bytes);
    BOOST_TEST(outcomes.responses > 0U);
    std::size_t all = outcomes.responses;
    for (const auto& [status, count] : outcomes.notices) {
        BOOST_TEST(status == KAVRI_CORE_STATUS_IPC_OVERLOADED);
        all += count;
    }
    BOOST_TEST(all == sent);
    requireThatNothingIsLeft();
}

BOOST_FIXTURE_TEST_CASE(anInitiatorThatDoesNotReadHoldsUpNobodyElse, Loaded) {
    Program& other = here.initiator(otherUser);
    for (int i = 0; i < 1500; ++i) {
        here.say(caller, request(++sent));
    }
    settle();
    caller.reads = false;
    const std::string bytes = std::exchange(service.heard, {});
    for (const Frame& frame : framesIn(bytes)) {
        while (!service.maySpeak()) {
            run(1ms, 1ms);  // no more than the time after which a program counts as stalled
        }
        there.say(service, response(frame.token, large));
        BOOST_REQUIRE(there.userBytes(linkUser) < 12 * kavri::wire::mebibyte);
    }
    run(1s);
    here.say(other, request(1));
    settle();
    there.say(service, response(framesIn(service.heard).at(0).token));
    settle();
    BOOST_TEST(here.hear(other) == "response 1" + fields + "p");
    BOOST_TEST(service.isConnected());
    requireThatNothingIsLeft();
}

// Frames of more than a window go one at a time.
BOOST_FIXTURE_TEST_CASE(aFrameMayBeLongerThanTheWindow, Loaded) {
    const std::string longest(3 * Channel::windowBytes, 'l');
    for (std::uint64_t token = 1; token <= 5; ++token) {
        while (!caller.maySpeak()) {
            run(1ms, 1ms);
        }
        here.say(caller, request(token, longest));
    }
    run(1s);
    const std::string bytes = std::exchange(service.heard, {});
    const auto asked = framesIn(bytes);
    BOOST_REQUIRE(asked.size() == 5U);
    for (const Frame& frame : asked) {
        BOOST_TEST((frame[Field::payload] == longest));
        there.say(service, response(frame.token, longest));
        run(100ms);
    }
    BOOST_TEST(framesIn(caller.heard).size() == 5U);
    requireThatNothingIsLeft();
}

BOOST_FIXTURE_TEST_CASE(everyByteIsCreditedAgain, Loaded) {
    for (std::uint64_t token = 1; token <= 300; ++token) {
        here.say(caller, request(token, large));
        settle();
        answerAll();
        settle();
    }
    BOOST_TEST(framesIn(caller.heard).size() == 300U);
    for (LinkedBroker* broker : {&here, &there}) {
        broker->link->channels().forEach([](const Channel& channel) {
            BOOST_TEST(channel.bytesInTransit() < Channel::windowBytes / 4 + 20000);
        });
    }
    requireThatNothingIsLeft();
}

// Feeds of several categories that wait for slow subscribers keep to the share of the link.
BOOST_AUTO_TEST_CASE(whatWaitsForSlowSubscribersKeepsToTheShare) {
    LinkedWorld world;
    kavri::wire::Limits limits;
    limits.bytesPerUser = 2 * kavri::wire::mebibyte;
    limits.sendQueueBytes = 64 * 1024;
    LinkedBroker& here = world.start(linkOf({}, {"*"}), servedByLink(), limits);
    LinkedBroker& there = world.start(linkOf({"a", "b", "c", "d", "e", "f", "g", "h"}, {}));
    std::vector<Program*> publishers;
    for (const std::string category : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        publishers.push_back(&there.responder(category));
        here.subscriber(category).reads = false;
    }
    world.settle();
    const std::string large(10000, 'l');
    for (int i = 0; i < 100; ++i) {
        for (std::size_t each = 0; each < publishers.size(); ++each) {
            there.say(*publishers[each], publish(large, std::string(1, char('a' + each))));
        }
        world.settle();
        BOOST_REQUIRE(here.userBytes(linkUser) <= limits.bytesPerUser + 100000);
    }
}
