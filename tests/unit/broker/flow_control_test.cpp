// Who waits for whom, and who is resumed when: senders, a responder and a
// subscriber whose queues are filled by hand.
#define BOOST_TEST_MODULE flowControl

#include "broker/routing/flow_control.h"

#include <boost/test/unit_test.hpp>

#include "support/scripted_broker.h"

using namespace kavri::tests;
using kavri::broker::FlowControl;
using kavri::wire::largeFrameBytes;
using kavri::wire::Limits;

namespace {

constexpr std::size_t high = 8 * kavri::wire::mebibyte / 4 * 3;

struct Responder : ScriptedBroker {
    explicit Responder(const Limits& itsLimits = {}) : ScriptedBroker(itsLimits) {}

    Session& service = responder("test");
    Session& elsewhere = responder("elsewhere");

    Session& senderOf(std::string_view payload, std::string_view category = "test") {
        Session& sender = initiator();
        send(sender, payload, category);
        return sender;
    }
    void send(Session& sender, std::string_view payload, std::string_view category = "test") {
        say(sender, makeFrame(FrameType::request, 1, {category, "", "", payload}));
    }
    void fill(Session& session, std::size_t bytes = high) {
        session.sendQueue.appendCopy(std::string(bytes - session.sendQueue.bytes(), 'f'));
    }
    // The session's peer takes everything.
    void drain(Session& session) {
        session.sendQueue.clear();
        resumeAllAt(session);
    }
    std::string largePayload() { return std::string(largeFrameBytes, 'l'); }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(sendersAreResumedInTheOrderInWhichTheyBeganToWait, Responder) {
    fill(service);
    std::vector<Session*> expected;
    for (int i = 0; i < 5; ++i) {
        expected.push_back(&senderOf("x"));
        BOOST_TEST(expected.back()->isBlocked());
    }
    drain(service);
    BOOST_TEST(resumed == expected, boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(onlyAsManyAreResumedAsThereIsRoomFor, Responder) {
    fill(service);
    const std::string payload(15'000, 'x');
    std::vector<Session*> senders;
    for (int i = 0; i < 10; ++i) {
        senders.push_back(&senderOf(payload));
    }
    service.sendQueue.consume(high - limits.sendQueueBytes / 2 + 40'000);
    resumeAllAt(service);
    BOOST_TEST(resumed.size() == 3U);
    BOOST_TEST(senders[3]->isBlocked());
    service.sendQueue.consume(1);
    resumeAllAt(service);
    BOOST_TEST(resumed.size() == 3U);  // half of the queue is still there
}

BOOST_FIXTURE_TEST_CASE(aRoundResumesNoMoreThanItMay, Responder) {
    fill(service);
    std::vector<Session*> senders;
    for (int i = 0; i < 5; ++i) {
        senders.push_back(&senderOf("x"));
    }
    service.sendQueue.clear();
    BOOST_TEST(!resumeAllAt(service, 2));
    BOOST_TEST(resumed.size() == 2U);
    BOOST_TEST(senders[2]->isBlocked());
    BOOST_TEST(senderOf("newcomer").isBlocked());
    BOOST_TEST(resumeAllAt(service));
    BOOST_TEST(resumed.size() == 6U);
    BOOST_TEST(!senders[2]->isBlocked());
}

BOOST_FIXTURE_TEST_CASE(nobodyIsResumedWhileThereIsNoRoom, Responder) {
    fill(service);
    senderOf("x");
    senderOf(largePayload());
    service.sendQueue.consume(10);
    resumeAllAt(service);
    BOOST_TEST(resumed.empty());
}

BOOST_FIXTURE_TEST_CASE(aNewcomerWaitsBehindThoseWhoWait, Responder) {
    fill(service);
    Session& first = senderOf("x");
    service.sendQueue.clear();  // and nobody was resumed yet
    Session& newcomer = senderOf("y");
    BOOST_TEST(newcomer.isBlocked());
    resumeAllAt(service);
    BOOST_TEST(resumed == (std::vector<Session*>{&first, &newcomer}),
               boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(whoSendsElsewhereDoesNotWait, Responder) {
    fill(service);
    senderOf("x");
    BOOST_TEST(!senderOf("x", "elsewhere").isBlocked());
}

BOOST_FIXTURE_TEST_CASE(aSenderThatLeavesLeavesTheLine, Responder) {
    fill(service);
    Session& first = senderOf("1");
    Session& second = senderOf("2");
    Session& third = senderOf("3");
    leave(second);
    drain(service);
    BOOST_TEST(resumed == (std::vector<Session*>{&first, &third}),
               boost::test_tools::per_element());
}

BOOST_FIXTURE_TEST_CASE(allAreResumedWhenTheOneTheyWaitForLeaves, Responder) {
    fill(service);
    Session& small = senderOf("x");
    Session& large = senderOf(largePayload());
    leave(service);
    BOOST_TEST(hear(small) == "notice 1 status=10");
    BOOST_TEST(hear(large) == "notice 1 status=10");
}

// Large requests beside small ones.

BOOST_FIXTURE_TEST_CASE(aLargeRequestGetsThroughBesideSmallOnes, Responder) {
    Session& one = initiator();
    Session& other = initiator();
    fill(service, FlowControl::aheadOfLargeBytes + 1);
    Session& large = senderOf(largePayload());
    BOOST_TEST(large.isBlocked());
    // The two send whenever they may, and the responder never takes all of it.
    const std::string small(4096, 's');
    std::size_t passed = 0;
    for (int i = 0; i < 1000 && large.isBlocked(); ++i) {
        for (Session* sender : {&one, &other}) {
            if (!sender->isBlocked()) {
                send(*sender, small);
                passed += small.size();
            }
        }
        service.sendQueue.consume(std::min<std::size_t>(service.sendQueue.bytes(), 8192));
        resumeAllAt(service);
    }
    BOOST_TEST(!large.isBlocked());
    BOOST_TEST(passed <= FlowControl::passingLargeBytes + 2 * 8192);
    BOOST_TEST((resumed.front() == &large));
}

BOOST_FIXTURE_TEST_CASE(aSmallRequestHasOneLargeOneBeforeIt, Responder) {
    fill(service, FlowControl::aheadOfLargeBytes + 1);
    std::vector<Session*> senders;
    for (int i = 0; i < 10; ++i) {
        senders.push_back(&senderOf(largePayload()));
    }
    BOOST_TEST(!senderOf("small").isBlocked());
}

BOOST_FIXTURE_TEST_CASE(largeRequestsGoOneByOneInTheirOrder, Responder) {
    fill(service, FlowControl::aheadOfLargeBytes + 1);
    std::vector<Session*> senders;
    const std::string payload(FlowControl::aheadOfLargeBytes, 'l');
    for (int i = 0; i < 3; ++i) {
        senders.push_back(&senderOf(payload));
    }
    for (std::size_t i = 0; i < 3; ++i) {
        BOOST_REQUIRE(resumed.size() == i);
        drain(service);
        BOOST_REQUIRE(resumed.size() == i + 1);
        BOOST_TEST(resumed.back() == senders[i]);
    }
}

// Peers that are below the drain rate.

BOOST_FIXTURE_TEST_CASE(whenAPeerIsGivenUpOnNobodyWaitsForIt, Responder) {
    fill(service);
    Session& small = senderOf("x");
    Session& large = senderOf(largePayload());
    giveUpOn(service);
    resumeAllAt(service);
    BOOST_TEST(hear(small) == "notice 1 status=14");
    BOOST_TEST(hear(large) == "notice 1 status=14");
    BOOST_TEST(!senderOf("y").isBlocked());
    BOOST_TEST(service.sendQueue.bytes() == high);
    BOOST_TEST(small.asInitiator.pendingRequests == 0U);
}

BOOST_FIXTURE_TEST_CASE(aRequestToItIsDeliveredBelowTheHighWaterMark, Responder) {
    fill(service, high - 1);
    giveUpOn(service);
    Session& sender = senderOf(largePayload());
    BOOST_TEST(!sender.isBlocked());
    BOOST_TEST(hear(sender) == "");
    BOOST_TEST(service.asResponder.requestsInFlight == 1U);
}

BOOST_FIXTURE_TEST_CASE(itIsWaitedForAgainWhenItDrains, Responder) {
    fill(service);
    giveUpOn(service);
    BOOST_TEST(!senderOf("x").isBlocked());
    service.congestion->meter.sample(now + std::chrono::hours(1), 1'000'000, 1);
    BOOST_TEST(senderOf("x").isBlocked());
}

BOOST_FIXTURE_TEST_CASE(anEventIsHeldUpByASteadySubscriberAndNotByAnother, Responder) {
    Session& slow = subscriber("test");
    fill(slow);
    const Frame event = makeFrame(FrameType::publish, 0, {"test", "", {}, "news"});
    say(service, event);
    BOOST_TEST(service.waiting.on == &slow);
    giveUpOn(slow);
    resumeAllAt(slow);
    BOOST_TEST(!service.isBlocked());
    say(service, event);
    BOOST_TEST(!service.isBlocked());
}

BOOST_FIXTURE_TEST_CASE(anInitiatorThatWaitsForItselfIsResumedWhenItHasRoom, Responder) {
    Session& caller = initiator();
    fill(caller);
    send(caller, "x");
    BOOST_TEST(caller.waiting.on == &caller);
    giveUpOn(caller);
    resumeAllAt(caller);
    BOOST_TEST(caller.isBlocked());  // whatever others do: it takes its answers first
    drain(caller);
    BOOST_TEST(!caller.isBlocked());
}

// Where many large requests wait, they do so in their senders' sockets.

BOOST_AUTO_TEST_CASE(largeRequestsThatCannotGoAreReadUpToAQuarterOfTheShare) {
    Limits limits;
    limits.bytesPerUser = 4 * kavri::wire::mebibyte;
    Responder broker(limits);
    broker.service.sendQueue.appendCopy(std::string(100'000, 'f'));
    Frame large = makeFrame(FrameType::request, 1, {"test", "", "", {}});
    const std::string payload(200'000, 'l');
    large[Field::payload] = payload;
    const std::string bytes = encode(large);
    std::vector<Session*> senders;
    for (int i = 0; i < 30; ++i) {
        Session& sender = broker.initiator();
        broker.sayBytes(sender, bytes.substr(0, 50'000));
        if (!sender.isBlocked()) {
            broker.sayBytes(sender, bytes.substr(50'000));
        }
        BOOST_REQUIRE(sender.isBlocked());
        BOOST_REQUIRE(broker.closing(sender) == "");
        senders.push_back(&sender);
    }
    BOOST_TEST(senders.front()->input.large->capacity() >= 200'000U);
    BOOST_TEST(!senders.back()->input.large);
    BOOST_TEST(broker.userBytes(someUser) < limits.bytesPerUser);
    // All get through in the end.
    std::size_t delivered = 0;
    for (int turns = 0; turns < 1000 && delivered < senders.size(); ++turns) {
        broker.drain(broker.service);
        for (Session* sender : senders) {
            BOOST_REQUIRE_MESSAGE(broker.closing(*sender) == "", broker.closing(*sender));
            if (!sender->isBlocked() && sender->input.large) {
                broker.sayBytes(*sender, bytes.substr(50'000));
            }
        }
        delivered = 0;
        for (const Session* sender : senders) {
            delivered += sender->asInitiator.pendingRequests;
        }
    }
    BOOST_TEST(delivered == senders.size());
}
