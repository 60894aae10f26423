// What a monitor is shown of the traffic, and what it loses.
#define BOOST_TEST_MODULE tap

#include "broker/routing/tap.h"

#include <boost/test/unit_test.hpp>

#include "broker/hosted_test_service.h"
#include "support/conversation.h"

using namespace kavri::tests;
using kavri::broker::Tap;
using namespace std::chrono_literals;

namespace {

Frame monitorFrame(std::string_view options = "", std::string_view category = {}) {
    Frame frame = makeFrame(FrameType::monitor, 1, {.category = category});
    frame[Field::payload] = options;
    return frame;
}

// One observed frame in a line, but for the moment, which each has.
std::string shownIn(const Frame& frame) {
    BOOST_REQUIRE(frame.type == FrameType::observed);
    Frame names = frame;
    names[Field::payload] = {};
    std::string_view lines = frame[Field::payload];
    BOOST_REQUIRE(lines.starts_with("at="));
    lines.remove_prefix(lines.find('\n') + 1);
    std::string text = describe(names).substr(std::string_view("observed ").size()) + " ";
    text += lines;
    std::ranges::replace(text, '\n', ' ');
    return text;
}

// Monitors are not of the user whose traffic they watch.
kavri::broker::Policy managedByOthers() {
    kavri::broker::Policy policy;
    policy.manage.listed = {otherUser};
    return policy;
}

// An initiator, a responder, and somebody who watches them.
struct Monitored : Conversation {
    explicit Monitored(const Frame& asked = monitorFrame(),
                       const kavri::wire::Limits& itsLimits = smallLimits())
        : Conversation(itsLimits, managedByOthers()), monitor(addMonitor(asked)) {
        caller.process = 100;
        service.process = 200;
    }

    Session& addMonitor(const Frame& asked, uid_t user = otherUser) {
        Session& session = join("manager", user);
        say(session, asked);
        BOOST_REQUIRE(hear(session) == "acknowledgement 1");
        return session;
    }

    std::vector<std::string> seenBy(Session& session) {
        std::vector<std::string> lines;
        const std::string bytes = hearBytes(session);
        for (const Frame& frame : framesIn(bytes)) {
            lines.push_back(shownIn(frame));
        }
        return lines;
    }
    std::vector<std::string> seen() { return seenBy(monitor); }
    // Where nothing else is due.
    std::string seenOne() {
        const std::vector<std::string> lines = seen();
        BOOST_REQUIRE(lines.size() == 1U);
        return lines.front();
    }

    Session& monitor;
};

const std::string callerPeer = "from=0/100/1000 ";
const std::string toService = "to=1/200/1000 ";

// So many requests, each answered.
void exchange(Monitored& stage, int count) {
    for (int i = 0; i < count; ++i) {
        stage.say(stage.service, response(stage.ask(7)));
        stage.hearBytes(stage.caller);
    }
}

// How many were seen, and how many are said to be lost.
struct Tally {
    std::uint64_t seen = 0;
    std::uint64_t lost = 0;
};
Tally tallyOf(const std::vector<std::string>& lines) {
    Tally tally;
    for (const std::string& line : lines) {
        if (const std::size_t lost = line.find("lost="); lost != std::string::npos) {
            tally.lost += std::stoull(line.substr(lost + 5));
        } else {
            ++tally.seen;
        }
    }
    return tally;
}

}  // namespace

BOOST_AUTO_TEST_SUITE(whatIsShown)

BOOST_FIXTURE_TEST_CASE(aRequestWithBothPeersAndItsSizes, Monitored) {
    ask(7);
    BOOST_TEST(seenOne() == "7 category=test identifier=echo uuid=u type=request " + callerPeer +
                                toService + "bytes=42 payload_bytes=1 ");
}

BOOST_FIXTURE_TEST_CASE(aResponseUnderTheTokenOfItsRequestAndTheTimeBetween, Monitored) {
    const std::uint64_t token = ask(7);
    seen();
    moment.steady += 1500us;
    say(service, response(token, "longer"));
    BOOST_TEST(seenOne() ==
               "7 category=test identifier=echo uuid=u type=response from=1/200/1000 "
               "to=0/100/1000 bytes=47 payload_bytes=6 elapsed_ns=1500000 ");
}

BOOST_FIXTURE_TEST_CASE(aCompletionWithTheCategoryOfItsRequest, Monitored) {
    const std::uint64_t token = ask(7);
    seen();
    moment.steady += 2us;
    say(service, completion(token));
    BOOST_TEST(seenOne() ==
               "7 category=test type=completion from=1/200/1000 to=0/100/1000 "
               "bytes=32 elapsed_ns=2000 ");
}

BOOST_FIXTURE_TEST_CASE(theTimeOfARequestBeforeTheFirstMonitorIsNotKnown, Conversation) {
    const std::uint64_t token = ask(7);
    Session& monitor = join("manager");
    say(monitor, monitorFrame());
    hear(monitor);
    say(service, response(token));
    BOOST_TEST(hearBytes(monitor).find("elapsed") == std::string::npos);
}

BOOST_FIXTURE_TEST_CASE(whyARequestIsRefused, Monitored) {
    say(caller, request(8, "p", "nobody"));
    BOOST_TEST(seenOne() == "8 status=10 category=nobody identifier=echo uuid=u type=request " +
                                callerPeer + "bytes=44 payload_bytes=1 ");
}

BOOST_FIXTURE_TEST_CASE(anAnswerThatIsDropped, Monitored) {
    say(service, response(4711));
    BOOST_TEST(seenOne() ==
               "4711 category=test identifier=echo uuid=u type=response "
               "from=1/200/1000 bytes=42 payload_bytes=1 dropped=1 ");
    say(service, completion(4711));
    BOOST_TEST(seenOne() ==
               "4711 category=test type=completion from=1/200/1000 bytes=32 "
               "dropped=1 ");
    say(service, publish("news", "elsewhere"));
    BOOST_TEST(seenOne() ==
               "0 category=elsewhere identifier=event type=publish from=1/200/1000 "
               "bytes=50 payload_bytes=4 dropped=1 ");
}

BOOST_FIXTURE_TEST_CASE(anEventOnceWithTheNumberOfItsReceivers, Monitored) {
    subscriber("test");
    subscriber("test");
    seen();
    say(service, publish("news"));
    BOOST_TEST(seenOne() ==
               "0 category=test identifier=event type=event from=1/200/1000 "
               "receivers=2 bytes=45 payload_bytes=4 ");
}

BOOST_FIXTURE_TEST_CASE(eventsThatAreReadAtOnceOneByOne, Monitored) {
    sayBytes(service, encode(publish("one")) + encode(publish("seven")) + encode(publish("")));
    const std::vector<std::string> lines = seen();
    BOOST_REQUIRE(lines.size() == 3U);
    BOOST_TEST(lines[0].ends_with("receivers=0 bytes=44 payload_bytes=3 "));
    BOOST_TEST(lines[1].ends_with("receivers=0 bytes=46 payload_bytes=5 "));
    BOOST_TEST(lines[2].ends_with("receivers=0 bytes=41 payload_bytes=0 "));
}

BOOST_FIXTURE_TEST_CASE(whatTheBrokerAnswersWithTheResult, Monitored) {
    say(caller, subscribe(5));
    BOOST_TEST(seenOne() == "5 category=test type=subscribe " + callerPeer + "bytes=36 ");
    say(caller, unsubscribe(6));
    BOOST_TEST(seenOne() == "6 category=test type=unsubscribe " + callerPeer + "bytes=36 ");
    say(service, registration(9, "other"));
    BOOST_TEST(seenOne() ==
               "9 status=15 category=other type=registration from=1/200/1000 bytes=37 ");
    say(caller, ping(3));
    BOOST_TEST(seenOne() == "3 type=ping " + callerPeer + "bytes=32 ");
}

BOOST_FIXTURE_TEST_CASE(whoComesAndGoes, Monitored) {
    Session& guest = initiator();
    const std::string peer = "from=3/0/1000 ";
    BOOST_TEST(seenOne() == "1 identifier=initiator type=hello " + peer + "bytes=41 ");
    say(guest, makeFrame(FrameType::pong, 0));
    BOOST_TEST(seenOne() == "0 status=9 type=close " + peer +
                                "reason=malformed: an initiator does not send this type ");
    say(caller, makeFrame(FrameType::goodbye, 0, {.payload = ""}));
    BOOST_TEST(seenOne() == "0 type=close " + callerPeer);
}

BOOST_FIXTURE_TEST_CASE(theNoticesOfALostResponder, Monitored) {
    ask(7);
    seen();
    moment.steady += 3us;
    leave(service);
    BOOST_TEST(seenOne() ==
               "7 status=11 category=test type=notice to=0/100/1000 bytes=32 "
               "elapsed_ns=3000 ");
}

BOOST_FIXTURE_TEST_CASE(theServiceInTheBrokerLikeAnyOther, Monitored) {
    kavri::broker::HostedTestService hosted([](std::string_view) {});
    router.embed("hosted", hosted);
    say(caller, request(7, "p", "hosted"));
    const std::vector<std::string> lines = seen();
    BOOST_REQUIRE(lines.size() == 2U);
    BOOST_TEST(lines[0] == "7 category=hosted identifier=echo uuid=u type=request " + callerPeer +
                               "bytes=44 payload_bytes=1 ");
    BOOST_TEST(lines[1] ==
               "7 category=hosted identifier=echo uuid=u type=response "
               "to=0/100/1000 bytes=44 payload_bytes=1 elapsed_ns=0 ");
}

BOOST_AUTO_TEST_CASE(theBeginningOfAPayloadWhereItIsAskedFor) {
    Monitored stage(monitorFrame("payload_bytes=4\n"));
    stage.say(stage.caller, request(7, "p=\n\nx"));
    BOOST_TEST(stage.seenOne().ends_with("payload_bytes=5  p=  "));
}

BOOST_FIXTURE_TEST_CASE(theBeginningOfALongName, Monitored) {
    const std::string name(Tap::mostNameBytes + 1, 'n');
    say(caller, makeFrame(FrameType::request, 7, {"test", name, "u", ""}));
    const std::string bytes = hearBytes(monitor);
    const Frame shown = framesIn(bytes).at(0);
    BOOST_TEST(shown[Field::identifier] == name.substr(1));
    BOOST_TEST(shownIn(shown).ends_with("bytes=294 identifier_bytes=257 payload_bytes=0 "));
}

BOOST_AUTO_TEST_CASE(theLongestOfEverythingFits) {
    kavri::wire::Limits limits;
    Monitored stage(monitorFrame("payload_bytes=1000000\n"), limits);
    const std::string name(kavri::wire::fieldLimitBytes, 'n');
    const std::string payload(100'000, 'p');
    stage.say(stage.caller, makeFrame(FrameType::request, UINT64_MAX, {name, name, name, payload}));
    BOOST_TEST(stage.seen().size() == 1U);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(whatIsAskedFor)

BOOST_AUTO_TEST_CASE(oneCategory) {
    Monitored stage(monitorFrame("", "test"));
    stage.say(stage.caller, request(8, "p", "nobody"));
    stage.say(stage.caller, ping(1));
    BOOST_TEST(stage.seen().empty());
    const std::uint64_t token = stage.ask(7);
    stage.say(stage.service, completion(token));
    stage.say(stage.service, publish("news"));
    BOOST_TEST(stage.seen().size() == 3U);
    stage.say(stage.service, makeFrame(FrameType::goodbye, 0, {.payload = ""}));
    BOOST_TEST(stage.seenOne() == "0 category=test type=close from=1/200/1000 ");
}

// Whatever a responder writes into a response, it is of the category that it serves.
BOOST_AUTO_TEST_CASE(oneCategoryByWhatItsResponderServes) {
    Monitored stage(monitorFrame("", "test"));
    const std::uint64_t token = stage.ask(7);
    stage.seen();
    stage.say(stage.service, makeFrame(FrameType::response, token, {"false", "i", "u", "p"}));
    BOOST_TEST(stage.seenOne().starts_with("7 category=false identifier=i uuid=u type=response"));
}

BOOST_AUTO_TEST_CASE(onePeerAsSenderOrReceiver) {
    Monitored stage(monitorFrame("process=100\n"));
    Session& watcher = stage.subscriber("test");
    const std::uint64_t token = stage.ask(7);
    stage.say(stage.service, response(token));
    BOOST_TEST(stage.seen().size() == 2U);
    stage.say(stage.service, publish("news"));
    BOOST_TEST(stage.seen().empty());
    watcher.process = 100;
    stage.say(stage.service, publish("news"));
    BOOST_TEST(stage.seen().size() == 1U);
}

BOOST_AUTO_TEST_CASE(whatIsAskedOfAPeerHoldsForTheSameOne) {
    Monitored stage(monitorFrame("connection=1\nprocess=100\n"));
    stage.ask(7);
    BOOST_TEST(stage.seen().empty());
    BOOST_TEST(
        stage.seenBy(stage.addMonitor(monitorFrame("connection=1\nprocess=200\nuser=1000\n")))
            .empty());
    Session& right = stage.addMonitor(monitorFrame("connection=1\nprocess=200\nuser=1000\n"));
    stage.ask(8);
    BOOST_TEST(stage.seenBy(right).size() == 1U);
    BOOST_TEST(stage.seen().empty());
}

BOOST_FIXTURE_TEST_CASE(anOptionThatIsNoneClosesTheConnection, Conversation) {
    for (const char* const options :
         {"process", "process=\n", "process=x\n", "process=1x\n", "colour=1\n", "user=-1\n",
          "connection=99999999999999999999\n", "\n"}) {
        Session& session = join("manager");
        say(session, monitorFrame(options));
        BOOST_TEST(closing(session) == "status 9: malformed: an option of a monitor is none");
        leave(session);
    }
}

BOOST_FIXTURE_TEST_CASE(aMonitorAsksOnce, Monitored) {
    say(monitor, monitorFrame());
    BOOST_TEST(closing(monitor) == "status 9: malformed: it is a monitor already");
}

BOOST_FIXTURE_TEST_CASE(thereAreOnlySoMany, Monitored) {
    for (std::size_t count = 1; count < Tap::mostMonitors; ++count) {
        addMonitor(monitorFrame());
    }
    Session& oneTooMany = join("manager", otherUser);
    say(oneTooMany, monitorFrame());
    BOOST_TEST(hear(oneTooMany) == "acknowledgement 1 status=14");
    leave(monitor);
    say(oneTooMany, monitorFrame());
    BOOST_TEST(hear(oneTooMany) == "acknowledgement 1");
}

BOOST_FIXTURE_TEST_CASE(othersMayNotMonitor, Conversation) {
    say(caller, monitorFrame());
    BOOST_TEST(closing(caller) == "status 9: malformed: an initiator does not send this type");
}

BOOST_FIXTURE_TEST_CASE(withoutAMonitorNothingIsShown, Monitored) {
    leave(monitor);
    BOOST_TEST(!router.tap().isActive());
    exchange(*this, 3);
    BOOST_TEST(userBytes(otherUser) == 0U);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(whatIsLost)

BOOST_FIXTURE_TEST_CASE(whatDoesNotFitIsCountedAndToldFirst, Monitored) {
    exchange(*this, 500);
    BOOST_TEST(monitor.sendQueue.bytes() < queueLimit / 8 + 512);
    const Tally before = tallyOf(seen());
    BOOST_TEST(before.seen > 10U);
    BOOST_TEST(before.lost == 0U);
    ask(7);
    const std::vector<std::string> lines = seen();
    BOOST_REQUIRE(lines.size() == 2U);
    BOOST_TEST(lines[0] == "0 lost=" + std::to_string(1000 - before.seen) + " ");
    BOOST_TEST(lines[1].find("type=request") != std::string::npos);
}

BOOST_FIXTURE_TEST_CASE(whatWasLostIsToldWhenNothingElseComes, Monitored) {
    exchange(*this, 500);
    Tally tally = tallyOf(seen());
    router.tap().drained(monitor);
    const Tally rest = tallyOf(seen());
    BOOST_TEST(rest.seen == 0U);
    BOOST_TEST(tally.seen + rest.lost == 1000U);
    router.tap().drained(monitor);
    BOOST_TEST(seen().empty());
}

BOOST_FIXTURE_TEST_CASE(aMonitorThatReadsNothingDelaysNobody, Monitored) {
    for (int i = 0; i < 500; ++i) {
        const std::uint64_t token = ask(7);  // requires that nobody waits
        BOOST_TEST(say(service, response(token)) == nullptr);
        BOOST_TEST(hear(caller) == "response 7" + fields + "p");
    }
}

// Where its user has much in the broker, a monitor is the first to do without.
BOOST_AUTO_TEST_CASE(aShareThatIsHalfUsedUpIsLeftToTheTraffic) {
    kavri::wire::Limits limits = smallLimits();
    limits.bytesPerUser = queueLimit;
    Monitored stage(monitorFrame(), limits);
    Session& other = stage.initiator(otherUser);
    stage.seen();
    stage.fill(other, queueLimit / 2);
    stage.ask(7);
    stage.ask(8);
    const std::vector<std::string> lines = stage.seen();  // the first: nothing was queued
    BOOST_TEST(lines.size() == 1U);
    stage.router.tap().drained(stage.monitor);
    BOOST_TEST(tallyOf(stage.seen()).lost == 1U);
}

BOOST_FIXTURE_TEST_CASE(whatIsHeldForAMonitorIsCharged, Monitored) {
    seen();
    const std::size_t before = userBytes(otherUser);
    ask(7);
    BOOST_TEST(userBytes(otherUser) == before + monitor.sendQueue.bytes());
    leave(monitor);
    BOOST_TEST(userBytes(otherUser) == 0U);
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(whenItIsWritten)

BOOST_FIXTURE_TEST_CASE(aLittleLater, Monitored) {
    ask(7);
    BOOST_TEST(!monitor.listedForWriting);
    const auto due = router.tap().due();
    BOOST_REQUIRE(due.has_value());
    BOOST_TEST((*due - moment.steady == Tap::gatheringTime));
    moment.steady += 5ms;
    ask(8);
    BOOST_TEST((router.tap().due() == due));
    router.tap().writeDue(*due - 1ns);
    BOOST_TEST(!monitor.listedForWriting);
    router.tap().writeDue(*due);
    BOOST_TEST(monitor.listedForWriting);
    BOOST_TEST(!router.tap().due().has_value());
}

BOOST_AUTO_TEST_CASE(atOnceWhereThereIsMuch) {
    Monitored stage(monitorFrame(), {});
    while (stage.monitor.sendQueue.bytes() < Tap::gatheredBytes) {
        BOOST_REQUIRE(!stage.monitor.listedForWriting);
        stage.say(stage.caller, ping(1));
        stage.hearBytes(stage.caller);
    }
    BOOST_TEST(stage.monitor.listedForWriting);
}

BOOST_AUTO_TEST_SUITE_END()
