// Who counts as draining fast enough, by scripts of what a peer took and when.
#define BOOST_TEST_MODULE drainMeter

#include "broker/session/drain_meter.h"

#include <boost/test/unit_test.hpp>
#include <random>

using kavri::broker::Clock;
using kavri::broker::DrainMeter;
using kavri::wire::kibibyte;
using kavri::wire::Limits;
using kavri::wire::mebibyte;
using namespace std::chrono_literals;

namespace {

// A peer at 1 MiB/s is due 64 KiB in 62.5 ms, beyond the stall time of 200 ms.
struct Peer {
    Limits limits;
    Clock::time_point now;
    std::int64_t taken = 0;
    DrainMeter meter{limits, now};

    void after(std::chrono::milliseconds time, std::size_t bytes, std::size_t left = 1) {
        now += time;
        taken += static_cast<std::int64_t>(bytes);
        meter.sample(now, taken, left);
    }
    // For ten seconds, looked at every 50 ms: how much of it others would wait.
    std::chrono::milliseconds steadyTime(std::size_t bytesPerSecond) {
        std::chrono::milliseconds steady{0};
        for (int i = 0; i < 200; ++i) {
            after(50ms, bytesPerSecond / 20);
            steady += meter.isSteady() ? 50ms : 0ms;
        }
        return steady;
    }
};

}  // namespace

BOOST_AUTO_TEST_CASE(aPeerAtTheDrainRateOrAboveIsSteady) {
    for (const std::size_t mebibytes : {1, 2, 10, 20, 40}) {
        BOOST_TEST(Peer().steadyTime(mebibytes * mebibyte).count() == 10'000);
    }
}

BOOST_AUTO_TEST_CASE(aPeerBelowItIsNotForLong) {
    BOOST_TEST(Peer().steadyTime(10'000).count() <= 300);
    BOOST_TEST(Peer().steadyTime(mebibyte / 2).count() <= 600);
}

BOOST_FIXTURE_TEST_CASE(aPeerThatStoppedIsGivenUpOnAfterTheStallTimeAndOnePiece, Peer) {
    after(200ms, 0);
    BOOST_TEST(meter.isSteady());
    after(63ms, 0);
    BOOST_TEST(!meter.isSteady());
}

BOOST_FIXTURE_TEST_CASE(aFastPeerThatStopsHasNothingSaved, Peer) {
    after(50ms, 10 * mebibyte);
    after(262ms, 0);
    BOOST_TEST(meter.isSteady());
    after(1ms, 0);
    BOOST_TEST(!meter.isSteady());
}

BOOST_FIXTURE_TEST_CASE(burstsAtTheDrainRateAreSteady, Peer) {
    // Sleeps for 50 ms, and then reads what came meanwhile.
    for (int i = 0; i < 1000; ++i) {
        after(25ms, 0);
        BOOST_REQUIRE(meter.isSteady());
        after(25ms, mebibyte / 20 + 1);
        BOOST_REQUIRE(meter.isSteady());
    }
}

// The kernel shows that bytes were taken in pieces only.
BOOST_FIXTURE_TEST_CASE(aPeerThatTakesSmallPartsIsSteadyThoughTheKernelShowsPieces, Peer) {
    std::size_t hidden = 0;
    for (int i = 0; i < 10'000; ++i) {
        hidden += mebibyte / 1000 + 1;  // a millisecond's work each
        std::size_t shown = 0;
        if (hidden >= 37 * kibibyte) {
            shown = std::exchange(hidden, 0);
        }
        after(1ms, shown);
        BOOST_REQUIRE(meter.isSteady());
    }
}

BOOST_FIXTURE_TEST_CASE(aPeerThatTookAllThereWasIsSteady, Peer) {
    after(10s, 0);
    BOOST_TEST(!meter.isSteady());
    after(50ms, 100, 0);
    BOOST_TEST(meter.isSteady());
    BOOST_TEST((meter.lastTaken() == now));
}

BOOST_FIXTURE_TEST_CASE(aPeerThatTakesAgainIsSteadyAgainAfterHalfOfWhatItIsBehind, Peer) {
    after(10s, 0);
    BOOST_TEST(!meter.isSteady());
    after(0ms, 130 * kibibyte);
    BOOST_TEST(!meter.isSteady());
    after(0ms, 10 * kibibyte);
    BOOST_TEST(meter.isSteady());
}

BOOST_FIXTURE_TEST_CASE(onePieceOfTheKernelsIsNotEnough, Peer) {
    after(10s, 0);
    for (int i = 0; i < 100; ++i) {
        after(5s, 48 * kibibyte);
        BOOST_REQUIRE(!meter.isSteady());
    }
}

// Small writes cost the kernel more memory than they have bytes.
BOOST_FIXTURE_TEST_CASE(whatSeemsToShrinkIsMadeUpForLater, Peer) {
    taken -= static_cast<std::int64_t>(100 * kibibyte);
    after(50ms, 0);
    BOOST_TEST(meter.isSteady());
    after(50ms, 205 * kibibyte);
    BOOST_TEST(meter.isSteady());
    for (int i = 0; i < 4; ++i) {
        after(50ms, 0);
        BOOST_TEST(meter.isSteady());
    }
}

BOOST_FIXTURE_TEST_CASE(itKnowsWhenThePeerLastTookSomething, Peer) {
    after(50ms, 1);
    const Clock::time_point last = now;
    after(3s, 0);
    BOOST_TEST((meter.lastTaken() == last));
    after(50ms, 1);
    BOOST_TEST((meter.lastTaken() == now));
}

BOOST_AUTO_TEST_CASE(theRateAndTheTimeAreSettings) {
    Peer patient;
    patient.limits.drainBytesPerSecond = 10'000;
    patient.limits.stallTime = 10s;
    patient.meter = DrainMeter(patient.limits, patient.now);
    BOOST_TEST(patient.steadyTime(12'000).count() == 10'000);
    patient.after(10s, 0);
    BOOST_TEST(patient.meter.isSteady());
    patient.after(7s, 0);
    BOOST_TEST(!patient.meter.isSteady());
}

// Whatever a peer does: others wait no longer than its bytes take at the rate.
BOOST_AUTO_TEST_CASE(waitingIsPaidForWithBytes) {
    std::mt19937 random(4711);  // NOLINT(cert-msc51-cpp): the same every time
    for (int script = 0; script < 200; ++script) {
        Peer peer;
        std::chrono::milliseconds waited{0};
        for (int i = 0; i < 500; ++i) {
            const bool wasSteady = peer.meter.isSteady();
            const std::chrono::milliseconds pause(random() % 80);
            const bool takes = random() % (1 + static_cast<unsigned>(script) % 20) == 0;
            peer.after(pause, takes ? random() % (200 * kibibyte) : 0);
            waited += wasSteady ? pause : 0ms;
        }
        const auto atTheRate = std::chrono::milliseconds(
            static_cast<std::int64_t>(static_cast<double>(peer.taken) / mebibyte * 1000));
        BOOST_REQUIRE(waited.count() <= 2 * atTheRate.count() + 263 + 80);
    }
}
