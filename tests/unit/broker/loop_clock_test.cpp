// Time as the event loop lives through it.
#define BOOST_TEST_MODULE loopClock

#include "broker/loop/loop_clock.h"

#include <boost/test/unit_test.hpp>

using namespace kavri::broker;
using namespace std::chrono_literals;

namespace {

struct Loop {
    const LoopClock::Clock::time_point start{1h};
    LoopClock::Clock::time_point real = start;
    LoopClock clock{start};

    // A round that took so long, of which the loop meant to sleep so much.
    void round(LoopClock::Clock::duration took, LoopClock::Clock::duration planned) {
        real += took;
        clock.advance(real, planned);
    }
    LoopClock::Clock::duration lived() const { return clock.now() - start; }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(timePassesAsPlanned, Loop) {
    round(10ms, 10ms);
    round(3ms, 5s);  // woken early
    round(1ms, 0s);
    BOOST_TEST((lived() == 14ms));
}

BOOST_FIXTURE_TEST_CASE(aBitOfLatenessIsTime, Loop) {
    round(10ms + LoopClock::tolerance, 10ms);
    BOOST_TEST((lived() == 10ms + LoopClock::tolerance));
}

BOOST_FIXTURE_TEST_CASE(aStopWhileAsleepDoesNotCount, Loop) {
    round(1h, 5s);
    BOOST_TEST((lived() == 5s + LoopClock::tolerance));
}

BOOST_FIXTURE_TEST_CASE(aStopWhileAtWorkDoesNotCount, Loop) {
    round(1h, 0s);
    BOOST_TEST((lived() == LoopClock::tolerance));
}

BOOST_FIXTURE_TEST_CASE(aSleepWithoutEndIsNeverTooLong, Loop) {
    round(1h, LoopClock::Clock::duration::max());
    BOOST_TEST((lived() == 1h));
}

BOOST_FIXTURE_TEST_CASE(timeGoesOnAfterAStop, Loop) {
    round(1h, 0s);
    round(10ms, 10ms);
    BOOST_TEST((lived() == 10ms + LoopClock::tolerance));
    BOOST_TEST((clock.at(real + 5ms) == clock.now() + 5ms));
}

BOOST_FIXTURE_TEST_CASE(anOverloadedLoopStillSeesTimePass, Loop) {
    for (int i = 0; i < 10; ++i) {
        round(1s, 0s);
    }
    BOOST_TEST((lived() == 10 * LoopClock::tolerance));
}
