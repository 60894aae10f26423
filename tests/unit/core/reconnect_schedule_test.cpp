// When the next connection may be tried; without a clock, a socket or a thread.
#define BOOST_TEST_MODULE reconnectSchedule

#include "core/endpoint/reconnect_schedule.h"

#include <boost/test/unit_test.hpp>
#include <vector>

using namespace std::chrono_literals;
using kavri::core::Clock;
using kavri::core::ReconnectSchedule;

namespace {

// Connections one after the other, each made as soon as it may be.
struct Connections {
    ReconnectSchedule schedule;
    Clock::time_point now{1h};

    ReconnectSchedule::Connected connect() {
        schedule.begin(now);
        return schedule.succeeded(now);
    }
    // One that lasts this long; the pause that follows it.
    std::chrono::milliseconds connectFor(Clock::duration time) {
        connect();
        now += time;
        schedule.lost(now);
        const auto length =
            std::chrono::duration_cast<std::chrono::milliseconds>(schedule.notBefore() - now);
        now = schedule.notBefore();
        return length;
    }
    std::vector<int> pausesInMs(std::size_t count, Clock::duration time) {
        std::vector<int> pauses;
        while (pauses.size() < count) {
            pauses.push_back(static_cast<int>(connectFor(time).count()));
        }
        return pauses;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(reconnectSchedule, Connections)

BOOST_AUTO_TEST_CASE(theFirstConnectionIsTriedAtOnce) {
    BOOST_TEST((schedule.notBefore() <= Clock::time_point{}));
}

BOOST_AUTO_TEST_CASE(pausesDoubleFromTenMillisecondsToASecond) {
    const std::vector<int> expected = {10, 20, 40, 80, 160, 320, 640, 1000, 1000, 1000};
    BOOST_TEST(pausesInMs(expected.size(), 0ms) == expected, boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(noPauseFollowsAConnectionThatLasted) {
    BOOST_TEST(connectFor(1000ms).count() == 0);
    BOOST_TEST(connectFor(24h).count() == 0);
}

BOOST_AUTO_TEST_CASE(aConnectionAMomentTooShortIsFollowedByAPause) {
    BOOST_TEST(connectFor(1000ms - 1ns).count() == 10);
}

BOOST_AUTO_TEST_CASE(aConnectionThatLastedStartsThePausesAnew) {
    BOOST_TEST(pausesInMs(9, 999ms).back() == 1000);
    BOOST_TEST(connectFor(1s).count() == 0);
    const std::vector<int> expected = {10, 20, 40};
    BOOST_TEST(pausesInMs(expected.size(), 0ms) == expected, boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(aTryIsUnderWayUntilItSucceedsOrFails) {
    BOOST_TEST(!schedule.isConnecting());
    schedule.begin(now);
    BOOST_TEST(schedule.isConnecting());
    schedule.failed();
    BOOST_TEST(!schedule.isConnecting());
    schedule.begin(now);
    schedule.succeeded(now);
    BOOST_TEST(!schedule.isConnecting());
}

BOOST_AUTO_TEST_CASE(aFailedTryAddsNoPause) {
    connectFor(0ms);
    const Clock::time_point before = schedule.notBefore();
    schedule.begin(now);
    schedule.failed();
    BOOST_TEST((schedule.notBefore() == before));
}

BOOST_AUTO_TEST_CASE(theFirstConnectionIsNoRestoredOne) {
    schedule.begin(now);
    schedule.failed();
    BOOST_TEST(connect().isFirst);
}

BOOST_AUTO_TEST_CASE(aRestoredConnectionKnowsForHowLongThereWasNone) {
    connectFor(5s);
    now += 1500us;
    const ReconnectSchedule::Connected restored = connect();
    BOOST_TEST(!restored.isFirst);
    BOOST_TEST(restored.disconnected.count() == 2);  // rounded up: there was a gap
}

BOOST_AUTO_TEST_SUITE_END()
