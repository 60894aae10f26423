// What people are shown of a snapshot: rates, times and sizes in words, and what is in
// trouble first.
#define BOOST_TEST_MODULE textForm

#include "management/text_form.h"

#include <boost/test/unit_test.hpp>

using namespace kavri::management;

namespace {

std::string shown(const Snapshot& snapshot, const Snapshot* earlier = nullptr) {
    Names names;
    return textForm(snapshot, earlier, {"/run/s", false, {}}, names);
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

Snapshot withRequests(std::uint64_t uptimeMs, std::uint64_t requests) {
    Snapshot snapshot;
    snapshot.broker.uptimeMs = uptimeMs;
    snapshot.traffic.add("requests", requests);
    snapshot.traffic.add("notices_overloaded", 0);
    return snapshot;
}

}  // namespace

BOOST_AUTO_TEST_CASE(aRateIsThatOfTheTimeBetweenTwoLooks) {
    const Snapshot before = withRequests(10'000, 100);
    const Snapshot after = withRequests(12'000, 125);
    BOOST_TEST(!has(shown(after), "PER SECOND"));
    BOOST_TEST(has(shown(after, &before), "requests              125        12.5\n"),
               shown(after, &before));
}

// After a restart the counts begin anew, and a rate is none.
BOOST_AUTO_TEST_CASE(countsThatFellHaveNoRate) {
    const Snapshot before = withRequests(1'000, 100);
    const Snapshot after = withRequests(5'000, 3);
    BOOST_TEST(has(shown(after, &before), "requests                3         0.0\n"),
               shown(after, &before));
}

BOOST_AUTO_TEST_CASE(whatDidNotGoWrongIsNotShown) {
    Snapshot snapshot = withRequests(1'000, 1);
    BOOST_TEST(!has(shown(snapshot), "overloaded"));
    snapshot.traffic.add("notices_refused", 2);
    BOOST_TEST(has(shown(snapshot), "notices refused                2\n"), shown(snapshot));
}

BOOST_AUTO_TEST_CASE(timesAndSizesAreReadable) {
    Snapshot snapshot = withRequests((3 * 86'400 + 3'723) * 1'000ULL, 0);
    snapshot.limits.add("bytes_per_user", 64ULL << 20U);
    snapshot.users.push_back({.user = 4'294'967'293U, .connections = 2, .bytes = 1536});
    const std::string text = shown(snapshot);
    BOOST_TEST(has(text, "up 3 d 01:02:03"), text);
    BOOST_TEST(has(text, "4294967293            2  1.5 KiB  64.0 MiB\n"), text);
}

BOOST_AUTO_TEST_CASE(everyCategoryIsShownTheBusiestFirst) {
    Snapshot snapshot = withRequests(1'000, 0);
    snapshot.categories = {{.name = "idle", .servedBy = "nobody"},
                           {.name = "heard", .servedBy = "broker", .subscribers = 4},
                           {.name = "busy", .servedBy = "broker", .requestsInFlight = 2}};
    const std::string text = shown(snapshot);
    BOOST_TEST(has(text,
                   "\nbusy      broker             2            0\n"
                   "heard     broker             0            4\n"
                   "idle      nobody             0            0\n"),
               text);
}

BOOST_AUTO_TEST_CASE(stalledComesBeforeCongestedAndThatBeforeThoseThatWait) {
    Snapshot snapshot = withRequests(1'000, 0);
    snapshot.connections = {
        {.number = 1, .role = "initiator", .queuedBytes = 10},
        {.number = 2, .role = "initiator", .waitsFor = 2},
        {.number = 3,
         .process = 4711,
         .role = "responder",
         .category = "test",
         .isCongested = true},
        {.number = 4, .role = "responder", .isCongested = true, .isStalled = true},
        {.number = 5, .role = "initiator", .waitsFor = 3}};
    const std::string text = shown(snapshot);
    std::size_t at = 0;
    for (const char* state : {"  stalled\n", "serves test", "  congested\n", "  has to read\n",
                              "  waits for 4711\n", "10 B"}) {
        const std::size_t found = text.find(state, at);
        BOOST_TEST(found != std::string::npos, state << " is not in its place in " << text);
        at = std::min(found, text.size());
    }
}

BOOST_AUTO_TEST_CASE(channelsToTheSameBrokerAreSummedUp) {
    Snapshot snapshot = withRequests(1'000, 0);
    snapshot.link.emplace(true, "nats://one:4222", Figures());
    snapshot.link->figures.add("connections", 3);
    snapshot.link->figures.add("brokers", 2);
    for (const char* broker : {"aa", "aa", "bb"}) {
        snapshot.remote.push_back({.way = "requests_out",
                                   .category = "test",
                                   .broker = broker,
                                   .brokerName = broker == std::string("aa") ? "alpha" : "",
                                   .roundTripUs = 210,
                                   .requestsInFlight = 2,
                                   .queuedBytes = 512});
    }
    const std::string text = shown(snapshot);
    BOOST_TEST(has(text, "link: by nats://one:4222  reconnected 2 times  brokers 2  queued 0 B\n"),
               text);
    BOOST_TEST(
        has(text, "test           requests out  alpha       210 us         2        4  1.0 KiB\n"),
        text);
    BOOST_TEST(
        has(text, "test           requests out  bb          210 us         1        2    512 B\n"),
        text);
}

BOOST_AUTO_TEST_CASE(aLinkThatIsDownSaysWhy) {
    Snapshot snapshot = withRequests(1'000, 0);
    snapshot.link.emplace(false, "nobody answers", Figures());
    BOOST_TEST(has(shown(snapshot), "link: down: nobody answers\n"));
}

BOOST_AUTO_TEST_CASE(whoWaitsForTheLinkIsToldFromWhoWaitsForAProcess) {
    Snapshot snapshot = withRequests(1'000, 0);
    snapshot.remote.push_back({.number = 7, .way = "requests_out"});
    snapshot.connections.push_back(
        {.number = 8, .process = 99, .role = "initiator", .waitsFor = 7});
    BOOST_TEST(has(shown(snapshot), "waits for the link\n"), shown(snapshot));
}
