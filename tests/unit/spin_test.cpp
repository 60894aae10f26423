// When a wait spins before it sleeps, and when not. The tests pass in how long each wait
// took, so that none depends on the clock.
#define BOOST_TEST_MODULE spin

#include "wire/spin.h"

#include <sched.h>

#include <boost/test/unit_test.hpp>
#include <thread>

using kavri::wire::Spin;

namespace {

void sleptShortly(Spin& spin) {
    spin.slept(std::chrono::nanoseconds(1));
}
void sleptLong(Spin& spin) {
    spin.slept(std::chrono::hours(1));
}

bool triesAtAll(Spin& spin) {
    bool tried = false;
    spin.until([&tried] { return tried = true; });
    return tried;
}

boost::test_tools::assertion_result hasManyProcessors(boost::unit_test::test_unit_id /*unused*/) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    return sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 1;
}

const auto onManyProcessors = [] { return boost::unit_test::precondition(hasManyProcessors); };

}  // namespace

BOOST_AUTO_TEST_CASE(aPeerThatNeverWaitedDoesNotSpin) {
    Spin spin;
    BOOST_TEST(!triesAtAll(spin));
    BOOST_TEST(!spin.until([] { return true; }));
}

BOOST_AUTO_TEST_CASE(afterALongWaitItDoesNotSpin) {
    Spin spin;
    sleptLong(spin);
    BOOST_TEST(!triesAtAll(spin));
}

BOOST_AUTO_TEST_CASE(afterAShortWaitItSpins, *onManyProcessors()) {
    Spin spin;
    sleptShortly(spin);
    BOOST_TEST(spin.until([] { return true; }));
}

BOOST_AUTO_TEST_CASE(howLongAShortWaitIsDependsOnWhatIsWaitedFor, *onManyProcessors()) {
    Spin local;
    Spin remote(Spin::answerOfAnotherMachine);
    for (Spin* const each : {&local, &remote}) {
        each->slept(Spin::answerOfThisMachine);
    }
    BOOST_TEST(!triesAtAll(local));
    BOOST_TEST(triesAtAll(remote));
    remote.slept(Spin::answerOfAnotherMachine);
    BOOST_TEST(!triesAtAll(remote));
}

BOOST_AUTO_TEST_CASE(itTriesUntilAnAttemptSucceeds, *onManyProcessors()) {
    // Each attempt finds something sooner or later: the first may already be
    // the last where the time is over before it.
    Spin spin;
    sleptShortly(spin);
    int attempts = 0;
    const bool found = spin.until([&attempts] { return ++attempts == 2; });
    BOOST_TEST(found == (attempts == 2));
    BOOST_TEST(attempts >= 1);
    BOOST_TEST(attempts <= 2);
}

BOOST_AUTO_TEST_CASE(aSpinThatFoundSomethingMayGoOnSpinning, *onManyProcessors()) {
    Spin spin;
    sleptShortly(spin);
    BOOST_TEST(triesAtAll(spin));
    BOOST_TEST(triesAtAll(spin));
}

BOOST_AUTO_TEST_CASE(aSpinThatFoundNothingEndsSpinning, *onManyProcessors()) {
    Spin spin;
    sleptShortly(spin);
    BOOST_TEST(!spin.until([] { return false; }));
    BOOST_TEST(!triesAtAll(spin));
    // As many as there are to be where the machine was crowded meanwhile.
    for (unsigned i = 0; i <= Spin::waitsWhenCrowded; ++i) {
        sleptShortly(spin);
    }
    BOOST_TEST(triesAtAll(spin));
}

BOOST_AUTO_TEST_CASE(whereOthersTakeTheProcessorForLongTheNextWaitsSleep, *onManyProcessors()) {
    Spin spin;
    sleptShortly(spin);
    int attempts = 0;
    BOOST_TEST(spin.until([&attempts] { return ++attempts == 2; },
                          [] {
                              const auto end = Spin::Clock::now() + 2 * Spin::crowdedTime;
                              while (Spin::Clock::now() < end) {
                              }
                          }));
    for (unsigned i = 0; i < Spin::waitsWhenCrowded; ++i) {
        BOOST_TEST(!triesAtAll(spin));
        sleptShortly(spin);
    }
    BOOST_TEST(!triesAtAll(spin));
    sleptShortly(spin);
    BOOST_TEST(triesAtAll(spin));
}

BOOST_AUTO_TEST_CASE(onOneProcessorItNeverSpins) {
    bool tried = true;
    // The mask is the thread's own: the other tests keep theirs.
    std::thread([&tried] {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        if (sched_setaffinity(0, sizeof one, &one) == 0) {
            Spin spin;
            sleptShortly(spin);
            tried = triesAtAll(spin);
        }
    }).join();
    BOOST_TEST(!tried);
}
