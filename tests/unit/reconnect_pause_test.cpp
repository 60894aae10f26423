// When the next connection may be tried; without a clock, a socket or a thread.
#define BOOST_TEST_MODULE reconnectPause

#include "core/reconnect_pause.h"

#include <boost/test/unit_test.hpp>
#include <vector>

using namespace std::chrono_literals;
using kavri::core::Clock;
using kavri::core::ReconnectPause;

namespace {

// Connections one after the other, each made as soon as it may be.
struct Connections {
    ReconnectPause pause;
    Clock::time_point now{1h};

    // One that lasts this long; the pause that follows it.
    std::chrono::milliseconds connectFor(Clock::duration time) {
        pause.connected(now);
        now += time;
        pause.lost(now);
        const auto length =
            std::chrono::duration_cast<std::chrono::milliseconds>(pause.notBefore() - now);
        now = pause.notBefore();
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

BOOST_FIXTURE_TEST_SUITE(reconnectPause, Connections)

BOOST_AUTO_TEST_CASE(theFirstConnectionIsTriedAtOnce) {
    BOOST_TEST((pause.notBefore() <= Clock::time_point{}));
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

BOOST_AUTO_TEST_SUITE_END()
