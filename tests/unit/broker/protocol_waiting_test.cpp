// A session that has to wait goes on where it stopped, however what it said was cut.
#define BOOST_TEST_MODULE protocolWaiting

#include <boost/test/unit_test.hpp>

#include "broker/routing/protocol.h"
#include "support/conversation.h"

using namespace kavri::tests;
using kavri::wire::largeFrameBytes;
using kavri::wire::Limits;

namespace {

struct Slow : Conversation {
    static Limits smallSendQueue() {
        Limits limits;
        limits.sendQueueBytes = queueLimit;
        return limits;
    }
    Slow() : Conversation(smallSendQueue()) {}

    void stall(Session& session) { session.sendQueue.appendCopy(std::string(threeQuarters, 's')); }
    // The payloads of the requests that the responder has got.
    std::string asked() {
        const std::string bytes = hearBytes(service);
        std::string payloads;
        for (const Frame& frame : framesIn(bytes)) {
            payloads += std::string(frame[Field::payload].substr(0, 10)) + ";";
        }
        return payloads;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(framesBehindTheOneThatWaitsKeepTheirOrder, Slow) {
    stall(service);
    BOOST_TEST(sayBytes(caller, encode(request(1, "one")) + encode(request(2, "two")) +
                                    encode(request(3, "three")).substr(0, 40)) == &service);
    service.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(asked() == "one;two;");
    sayBytes(caller, encode(request(3, "three")).substr(40));
    BOOST_TEST(asked() == "three;");
}

BOOST_AUTO_TEST_CASE(aLargeFrameWaitsAsASmallOneDoes) {
    std::string payload;
    const std::string large = encode(requestOfSize(1, 2 * largeFrameBytes, payload));
    const std::string small = encode(request(2, "small"));
    const std::vector<std::pair<std::string, std::string>> said = {
        {large, "llllllllll;"},
        {large + small, "llllllllll;small;"},
        {small + large, "small;llllllllll;"}};
    for (const auto& [bytes, expected] : said) {
        Slow slow;
        slow.stall(slow.service);
        BOOST_TEST(slow.sayBytes(slow.caller, bytes) == &slow.service);
        BOOST_TEST(slow.resume(slow.caller) == &slow.service);
        slow.service.sendQueue.clear();
        BOOST_TEST(slow.resume(slow.caller) == nullptr);
        BOOST_TEST(slow.asked() == expected);
        BOOST_TEST((!slow.caller.input.large && !slow.caller.input.backlog));
    }
}

BOOST_FIXTURE_TEST_CASE(nothingOvertakesALargeFrameThatWaits, Slow) {
    std::string payload;
    stall(service);
    BOOST_TEST(sayBytes(caller, encode(requestOfSize(1, 2 * largeFrameBytes, payload)) +
                                    encode(ping(2))) == &service);
    BOOST_TEST(hear(caller) == "");
    service.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(hear(caller) == "pong 2");
}

BOOST_FIXTURE_TEST_CASE(aLargeFrameThatCameInPartsMayHaveToWait, Slow) {
    std::string payload;
    const std::string bytes = encode(requestOfSize(2, 2 * largeFrameBytes, payload));
    sayBytes(caller, bytes.substr(0, 20'000));
    stall(service);
    BOOST_TEST(sayBytes(caller, bytes.substr(20'000) + encode(request(3, "behind"))) == &service);
    service.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(asked() == "llllllllll;behind;");
}

BOOST_FIXTURE_TEST_CASE(onlyWhatHasToWaitDoes, Slow) {
    stall(service);
    BOOST_TEST(sayBytes(caller, encode(ping(1)) + encode(request(2, "waits")) + encode(ping(3))) ==
               &service);
    BOOST_TEST(hear(caller) == "pong 1");
    service.sendQueue.clear();
    resume(caller);
    BOOST_TEST(hear(caller) == "pong 3");
}

// The room that one frame found may be gone for the next.
BOOST_FIXTURE_TEST_CASE(itMayHaveToWaitAgainFurtherOn, Slow) {
    std::string bytes;
    std::string expected;
    std::string payload;
    for (std::uint64_t token = 0; token < 10; ++token) {
        bytes += encode(requestOfSize(token, largeFrameBytes + 1, payload));
        bytes += encode(request(token, "between"));
        expected += "llllllllll;between;";
    }
    Session* waitFor = sayBytes(caller, bytes);
    std::string all;
    for (int turns = 0; waitFor != nullptr; ++turns) {
        BOOST_REQUIRE(waitFor == &service);
        BOOST_REQUIRE(turns < 20);
        all += asked();
        waitFor = resume(caller);
    }
    BOOST_TEST(all + asked() == expected);
}

BOOST_FIXTURE_TEST_CASE(goingOnWithNothingKeptIsNothing, Slow) {
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(asked() == "");
}

BOOST_FIXTURE_TEST_CASE(whatIsBadBehindTheOneThatWaitedIsFoundWhenItGoesOn, Slow) {
    stall(service);
    sayBytes(caller, encode(request(1, "one")) + std::string(40, '\xff'));
    BOOST_TEST(closing(caller) == "");
    service.sendQueue.clear();
    BOOST_TEST(resume(caller) == nullptr);
    BOOST_TEST(asked() == "one;");
    BOOST_TEST(closing(caller) == "status 9: malformed: unknown frame type");
}
