// What follows from what the user asked for: how long, and how much at a time.
#define BOOST_TEST_MODULE runPlan

#include "conformance/run/run_plan.h"

#include <boost/test/unit_test.hpp>

using kavri::conformance::RunPlan;

BOOST_AUTO_TEST_CASE(theTimeLimitGrowsWithRunsLibrariesAndSlowness) {
    RunPlan plan;
    const double oneRun = plan.limitSeconds();
    plan.repeat = 5;
    plan.libraries = {"a", "b"};
    plan.timeScale = 3;
    BOOST_TEST(plan.limitSeconds() == oneRun * 5 * 2 * 3);
    plan.timeoutSeconds = 7;
    BOOST_TEST(plan.limitSeconds() == 7);
    RunPlan proof;
    proof.proves = true;
    BOOST_TEST(proof.limitSeconds() > oneRun);
}

BOOST_AUTO_TEST_CASE(thereAreNoMoreProcessesThanRuns) {
    RunPlan plan;
    BOOST_TEST(plan.jobsFor(1) == 1U);
    BOOST_TEST(plan.jobsFor(1'000'000) < 1'000'000U);
    plan.jobs = 5;
    BOOST_TEST(plan.jobsFor(3) == 3U);
    BOOST_TEST(plan.jobsFor(9) == 5U);
}

BOOST_AUTO_TEST_CASE(aProcessRepeatsOftenEnoughToShowGrowthUnlessTheUserWantsMoreProcesses) {
    RunPlan plan;
    plan.repeat = 3;
    BOOST_TEST(plan.repeatJobs() == 1U);
    plan.repeat = 16;
    BOOST_TEST(plan.repeatJobs() == 2U);
    plan.jobs = 10;
    BOOST_TEST(plan.repeatJobs() == 10U);
}

BOOST_AUTO_TEST_CASE(oneBrokerOfAnotherMakeServesOneRunAtATime) {
    RunPlan plan;
    plan.repeat = 16;
    plan.jobs = 10;
    plan.socket = "/run/some.sock";
    BOOST_TEST(plan.repeatJobs() == 1U);
    plan.socket.reset();
    plan.ownBroker = true;
    BOOST_TEST(plan.repeatJobs() == 1U);
}
