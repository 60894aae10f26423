// The rules of a connection: who may say what and when, and that it does not
// matter how what is said is cut into pieces.
#define BOOST_TEST_MODULE protocol

#include "broker/routing/protocol.h"

#include <boost/test/unit_test.hpp>
#include <set>

#include "broker/hosted_test_service.h"
#include "support/conversation.h"

using namespace kavri::tests;
using kavri::broker::Role;
using kavri::wire::largeFrameBytes;
using kavri::wire::Limits;

namespace {

std::string echoed(std::uint64_t token, const std::string& payload) {
    return "response " + std::to_string(token) + fields + payload;
}

// With a service to talk to that answers at once.
struct WithService : ScriptedBroker {
    explicit WithService(const Limits& itsLimits = {}) : ScriptedBroker(itsLimits) {
        router.embed("test", service);
    }
    kavri::broker::HostedTestService service{[](std::string_view) {}};
};

}  // namespace

BOOST_AUTO_TEST_SUITE(greeting)

BOOST_AUTO_TEST_CASE(aHelloIsAnsweredWithIdentityAndLimits) {
    Limits limits;
    limits.payloadBytes = 12345;
    limits.openRequestsPerInitiator = 678;
    ScriptedBroker broker(limits);
    Session& session = broker.connect();
    broker.say(session, helloFrame("initiator"));
    const std::string bytes = broker.hearBytes(session);
    BOOST_TEST(describeAll(bytes) ==
               "welcome 1 uuid=the-identity payload=payload_bytes=12345\n"
               "field_bytes=65536\nopen_requests=678\n");
    BOOST_TEST(broker.closing(session) == "");
}

BOOST_FIXTURE_TEST_CASE(theRoleIsWhatTheHelloSays, ScriptedBroker) {
    BOOST_TEST((join("initiator").role == Role::initiator));
    BOOST_TEST((join("responder").role == Role::responder));
    BOOST_TEST((join("manager").role == Role::manager));
    BOOST_TEST((connect().role == Role::unknown));
}

BOOST_FIXTURE_TEST_CASE(aRoleThatIsNoneIsRefused, ScriptedBroker) {
    for (const char* role : {"", "Initiator", "initiator ", "broker"}) {
        Session& session = connect();
        say(session, helloFrame(role));
        BOOST_TEST(closing(session) ==
                   "status 9: malformed: its role is none of initiator, responder and manager");
        BOOST_TEST(session.sendQueue.empty());
    }
}

BOOST_FIXTURE_TEST_CASE(aUserWithoutTheRightMayNotManage, ScriptedBroker) {
    Session& session = connect(otherUser);
    say(session, helloFrame("manager"));
    BOOST_TEST(closing(session) == "status 9: this user may not manage the broker");
    BOOST_TEST((session.role == Role::unknown));
    BOOST_TEST(session.sendQueue.empty());
}

BOOST_FIXTURE_TEST_CASE(anotherVersionIsRefusedAndBothAreNamed, ScriptedBroker) {
    for (const std::uint64_t version : {std::uint64_t{0}, std::uint64_t{2}, UINT64_MAX}) {
        Session& session = connect();
        say(session, helloFrame("initiator", version));
        BOOST_TEST(closing(session) ==
                   "status 8: the broker speaks protocol version 1, the client version " +
                       std::to_string(version));
        BOOST_TEST((session.role == Role::unknown));
    }
}

BOOST_FIXTURE_TEST_CASE(nothingElseMayComeFirst, ScriptedBroker) {
    for (const FrameType type : allTypes) {
        if (type == FrameType::hello || type == FrameType::goodbye) {
            continue;
        }
        Session& session = connect();
        say(session, smallestFrame(type, 1));
        BOOST_TEST_CONTEXT(kavri::wire::typeName(type)) {
            BOOST_TEST(closing(session) == "status 9: malformed: its first frame is not a hello");
        }
    }
}

BOOST_FIXTURE_TEST_CASE(whatFollowsTheHelloMayComeWithIt, WithService) {
    Session& session = connect();
    sayBytes(session, encode(helloFrame("initiator")) + encode(request(7, "hi")));
    const std::string bytes = hearBytes(session);
    const auto frames = framesIn(bytes);
    BOOST_REQUIRE(frames.size() == 2U);
    BOOST_TEST((frames[0].type == FrameType::welcome));
    BOOST_TEST(describe(frames[1]) == echoed(7, "hi"));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(roles)

// Of all types, in every role, after the hello.
BOOST_FIXTURE_TEST_CASE(eachRoleSaysWhatIsItsAndNothingElse, ScriptedBroker) {
    const std::set<FrameType> initiators = {FrameType::request, FrameType::subscribe,
                                            FrameType::unsubscribe, FrameType::ping};
    const std::set<FrameType> responders = {FrameType::response, FrameType::completion,
                                            FrameType::publish, FrameType::registration,
                                            FrameType::ping};
    const std::set<FrameType> managers = {FrameType::query, FrameType::monitor, FrameType::ping};
    for (const FrameType type : allTypes) {
        BOOST_TEST_CONTEXT(kavri::wire::typeName(type)) {
            if (type == FrameType::goodbye) {
                continue;
            }
            Session& asInitiator = join("initiator");
            say(asInitiator, smallestFrame(type, 1));
            BOOST_TEST(closing(asInitiator) ==
                       (initiators.contains(type)
                            ? ""
                            : "status 9: malformed: an initiator does not send this type"));
            Session& asResponder = join("responder");
            say(asResponder, smallestFrame(type, 1));
            BOOST_TEST(closing(asResponder) ==
                       (responders.contains(type)
                            ? ""
                            : "status 9: malformed: a responder does not send this type"));
            Session& asManager = join("manager");
            say(asManager, smallestFrame(type, 1));
            BOOST_TEST(closing(asManager) ==
                       (managers.contains(type)
                            ? ""
                            : "status 9: malformed: a manager does not send this type"));
        }
    }
}

BOOST_FIXTURE_TEST_CASE(aPingIsAnsweredWithItsToken, ScriptedBroker) {
    for (const char* role : {"initiator", "responder", "manager"}) {
        Session& session = join(role);
        say(session, ping(42));
        say(session, ping(UINT64_MAX));
        BOOST_TEST(hear(session) == "pong 42\npong 18446744073709551615");
    }
}

BOOST_FIXTURE_TEST_CASE(aGoodbyeClosesWithoutAReason, ScriptedBroker) {
    for (Session* session :
         {&connect(), &join("initiator"), &join("responder"), &join("manager")}) {
        say(*session, makeFrame(FrameType::goodbye, 0, {.payload = "leaving"}));
        BOOST_TEST(closing(*session) == "status 0: ");
        BOOST_TEST(session->sendQueue.empty());
    }
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(malformed)

BOOST_FIXTURE_TEST_CASE(theReasonIsWhatIsWrong, WithService) {
    const auto reasonFor = [this](const std::string& bytes) {
        Session& session = initiator();
        sayBytes(session, bytes);
        return closing(session);
    };
    std::string unknownType = encode(ping(1));
    unknownType[4] = 99;
    BOOST_TEST(reasonFor(unknownType) == "status 9: malformed: unknown frame type");
    std::string badLength = encode(ping(1));
    badLength[0] = 33;
    BOOST_TEST(reasonFor(badLength) ==
               "status 9: malformed: the lengths in the header contradict each other");
    BOOST_TEST(reasonFor(encode(request(1, std::string_view("a\0b", 3)))) ==
               "status 9: malformed: a field has a NUL byte in it");
    BOOST_TEST(reasonFor(encode(makeFrame(FrameType::subscribe, 1))) ==
               "status 9: malformed: a field that this type must have is missing");
    BOOST_TEST(reasonFor(encode(makeFrame(FrameType::ping, 1, {.payload = "p"}))) ==
               "status 9: malformed: a field that this type does not have is present");
    BOOST_TEST(reasonFor(std::string(32, '\0')) == "status 9: malformed: unknown frame type");
}

BOOST_FIXTURE_TEST_CASE(aNulInALargeFrameIsFoundToo, WithService) {
    std::string payload(2 * largeFrameBytes, 'x');
    payload.back() = '\0';
    Session& session = initiator();
    say(session, request(7, payload));
    BOOST_TEST(closing(session) == "status 9: malformed: a field has a NUL byte in it");
    BOOST_TEST(session.sendQueue.empty());
}

BOOST_AUTO_TEST_CASE(aPayloadMayBeAsLargeAsGrantedAndNoLarger) {
    for (const std::size_t granted : {std::size_t{10}, std::size_t{100'000}}) {
        Limits limits;
        limits.payloadBytes = granted;
        WithService broker(limits);
        Session& session = broker.initiator();
        broker.say(session, request(7, std::string(granted, 'p')));
        const std::string answer = broker.hearBytes(session);
        BOOST_TEST(framesIn(answer).at(0)[Field::payload].size() == granted);
        broker.say(session, request(8, std::string(granted + 1, 'p')));
        BOOST_TEST(broker.closing(session) ==
                   "status 9: malformed: the payload is above the limit of this connection");
    }
}

// Its header is enough: nobody waits for the megabytes that it announces.
BOOST_FIXTURE_TEST_CASE(aBadHeaderClosesBeforeTheRestIsThere, WithService) {
    Session& session = initiator();
    const std::string bytes = encode(request(7, std::string(limits.payloadBytes + 1, 'p')));
    sayBytes(session, bytes.substr(0, 31));
    BOOST_TEST(closing(session) == "");
    sayBytes(session, bytes.substr(31, 1));
    BOOST_TEST(closing(session) != "");
}

BOOST_FIXTURE_TEST_CASE(whatCameBeforeIsHandledAndWhatComesBehindIsNot, WithService) {
    Session& session = initiator();
    std::string bad = encode(ping(2));
    bad[4] = 0;
    sayBytes(session, encode(ping(1)) + bad + encode(ping(3)));
    BOOST_TEST(closing(session) != "");
    BOOST_TEST(hear(session) == "pong 1");
}

BOOST_FIXTURE_TEST_CASE(nothingIsHeardBehindAGoodbyeOrAHelloThatWasRefused, WithService) {
    Session& leaving = initiator();
    sayBytes(leaving, encode(makeFrame(FrameType::goodbye, 0, {.payload = ""})) + encode(ping(1)));
    BOOST_TEST(hear(leaving) == "");
    Session& persistent = connect();
    sayBytes(persistent, encode(helloFrame("initiator", 2)) + encode(helloFrame("initiator")));
    BOOST_TEST(hear(persistent) == "");
    BOOST_TEST((persistent.role == Role::unknown));
}

BOOST_FIXTURE_TEST_CASE(nobodyElseNotices, WithService) {
    Session& other = initiator();
    Session& session = initiator();
    sayBytes(session, std::string(100, '\xff'));
    BOOST_TEST(closing(session) != "");
    BOOST_TEST(closing(other) == "");
    say(other, request(7, "hi"));
    BOOST_TEST(hear(other) == echoed(7, "hi"));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(pieces)

BOOST_FIXTURE_TEST_CASE(aConversationMayBeCutAtAnyByte, WithService) {
    const std::string bytes =
        encode(helloFrame("initiator")) + encode(ping(1)) + encode(request(2, "some payload")) +
        encode(makeFrame(FrameType::subscribe, 3, {.category = "test"})) + encode(request(4, ""));
    Session& whole = connect();
    sayBytes(whole, bytes);
    const std::string expected = hearBytes(whole);
    BOOST_REQUIRE(framesIn(expected).size() == 5U);
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        Session& session = connect();
        sayBytes(session, bytes.substr(0, cut));
        sayBytes(session, bytes.substr(cut));
        BOOST_REQUIRE((hearBytes(session) == expected));
        BOOST_REQUIRE(!session.input.backlog);
        leave(session);
    }
}

BOOST_FIXTURE_TEST_CASE(aConversationMayComeByteByByte, WithService) {
    std::string payload;
    const std::string bytes = encode(helloFrame("initiator")) + encode(request(2, "small")) +
                              encode(requestOfSize(3, largeFrameBytes + 10, payload)) +
                              encode(ping(4));
    Session& session = connect();
    for (const char byte : bytes) {
        BOOST_REQUIRE(sayBytes(session, std::string_view(&byte, 1)) == nullptr);
    }
    const std::string answer = hearBytes(session);
    const auto frames = framesIn(answer);
    BOOST_REQUIRE(frames.size() == 4U);
    BOOST_TEST((frames[2][Field::payload] == payload));
    BOOST_TEST(describe(frames[3]) == "pong 4");
}

// Large frames take another way; the boundary belongs to it.
BOOST_FIXTURE_TEST_CASE(framesAroundTheSizeOfALargeOneAreAllTheSame, WithService) {
    for (const std::size_t size : {largeFrameBytes - 1, largeFrameBytes, largeFrameBytes + 1}) {
        Session& session = initiator();
        std::string payload;
        sayBytes(session,
                 encode(ping(1)) + encode(requestOfSize(2, size, payload)) + encode(ping(3)));
        const std::string answer = hearBytes(session);
        const auto frames = framesIn(answer);
        BOOST_REQUIRE(frames.size() == 3U);
        BOOST_TEST(describe(frames[0]) == "pong 1");
        BOOST_TEST((frames[1][Field::payload] == payload));
        BOOST_TEST(describe(frames[2]) == "pong 3");
        BOOST_TEST(!session.input.large);
    }
}

BOOST_FIXTURE_TEST_CASE(aLargeFrameMayBeCutAtAnyByte, WithService) {
    std::string payload;
    const std::string bytes =
        encode(ping(1)) + encode(requestOfSize(2, largeFrameBytes, payload)) + encode(ping(3));
    Session& session = initiator();
    sayBytes(session, bytes);
    const std::string expected = hearBytes(session);
    // Every place around the ends and the header, and every eleventh between.
    for (std::size_t cut = 0; cut <= bytes.size();
         cut += cut < 200 || cut + 200 > bytes.size() ? 1 : 11) {
        sayBytes(session, bytes.substr(0, cut));
        sayBytes(session, bytes.substr(cut));
        BOOST_REQUIRE((hearBytes(session) == expected));
        BOOST_REQUIRE((!session.input.large && !session.input.backlog));
    }
}

BOOST_FIXTURE_TEST_CASE(anIdleSessionOwnsNoMemory, WithService) {
    Session& session = initiator();
    std::string payload;
    say(session, request(1, "small"));
    say(session, requestOfSize(2, 5 * largeFrameBytes, payload));
    hearBytes(session);
    BOOST_TEST(!session.input.backlog);
    BOOST_TEST(!session.input.large);
    BOOST_TEST(session.sendQueue.empty());
}

BOOST_AUTO_TEST_SUITE_END()
