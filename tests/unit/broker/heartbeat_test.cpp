// Signs of life: at intervals of the clock they are given, and only from a round of the loop.
#define BOOST_TEST_MODULE heartbeat

#include "broker/loop/heartbeat.h"

#include <boost/test/unit_test.hpp>

using kavri::broker::Heartbeat;
using namespace std::chrono_literals;

namespace {

struct Setting {
    int beats = 0;
    Heartbeat heartbeat{10s, [this] { ++beats; }};
    const Heartbeat::Clock::time_point start = Heartbeat::Clock::now();
};

}  // namespace

BOOST_AUTO_TEST_CASE(whereNobodyWaitsThereIsNone) {
    Heartbeat heartbeat;
    BOOST_TEST(!heartbeat.due().has_value());
    BOOST_CHECK_NO_THROW(heartbeat.beatIfDue(Heartbeat::Clock::now() + 1000h));
}

BOOST_FIXTURE_TEST_CASE(theFirstRoundBeats, Setting) {
    BOOST_TEST((heartbeat.due() <= start));
    heartbeat.beatIfDue(start);
    BOOST_TEST(beats == 1);
    BOOST_TEST((heartbeat.due() == start + 10s));
}

BOOST_FIXTURE_TEST_CASE(roundsWithinTheIntervalDoNot, Setting) {
    for (const auto time : {0s, 1s, 9s}) {
        heartbeat.beatIfDue(start + time);
    }
    BOOST_TEST(beats == 1);
    heartbeat.beatIfDue(start + 10s);
    BOOST_TEST(beats == 2);
}

BOOST_FIXTURE_TEST_CASE(aLateRoundBeatsOnceAndCountsFromThere, Setting) {
    heartbeat.beatIfDue(start);
    heartbeat.beatIfDue(start + 75s);
    BOOST_TEST(beats == 2);
    BOOST_TEST((heartbeat.due() == start + 85s));
}
