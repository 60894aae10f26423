// What counts as growth.
#define BOOST_TEST_MODULE growth

#include "conformance/run/growth.h"

#include <boost/test/unit_test.hpp>

using kavri::conformance::growthOf;
using kavri::conformance::limitRiseCount;
using kavri::conformance::limitRiseKiB;
using kavri::conformance::RepeatReport;
using kavri::conformance::slopeOf;
using kavri::conformance::warmUpRuns;

namespace {

using Values = std::vector<double>;

bool isGrowth(const Values& held, double limitRise) {
    return growthOf("module, things", held, limitRise).grows;
}

}  // namespace

BOOST_AUTO_TEST_SUITE(growthTest)

BOOST_AUTO_TEST_CASE(theSlopeIsThatOfTheLineThatFitsBest) {
    BOOST_TEST(slopeOf({3, 3, 3}) == 0.0);
    BOOST_TEST(slopeOf({1, 3, 5, 7}) == 2.0);
    BOOST_TEST(slopeOf({7, 5, 3}) == -2.0);
    BOOST_TEST(slopeOf({0, 1, 0, 1, 0}) == 0.0);
    // By hand: offsets -1.5, -0.5, 0.5, 1.5; products 0, 0, 0, 1.5; squares 5.
    BOOST_TEST(slopeOf({0, 0, 0, 1}) == 0.3, boost::test_tools::tolerance(1e-9));
}

BOOST_AUTO_TEST_CASE(aFifthOfTheRunsIsWarmUpAndAtLeastOne) {
    BOOST_TEST(warmUpRuns(4) == 1U);
    BOOST_TEST(warmUpRuns(5) == 1U);
    BOOST_TEST(warmUpRuns(100) == 20U);
}

BOOST_AUTO_TEST_CASE(oneDescriptorWithEachRunIsGrowth) {
    BOOST_TEST(isGrowth({9, 10, 11, 12}, limitRiseCount));
    BOOST_TEST(isGrowth({9, 10, 11, 12, 13}, limitRiseCount));
    const RepeatReport::Growth growth = growthOf("module, descriptors", {9, 10, 11, 12, 13}, 1.5);
    BOOST_TEST(growth.slope.value() == 1.0);
    BOOST_TEST(growth.first == 9);
    BOOST_TEST(growth.last == 13);
    BOOST_TEST(growth.most == 13);
    BOOST_TEST(growth.remark() ==
               "module, descriptors grows by 1.0 with each run: 9 after the first, 13 after the "
               "last");
}

BOOST_AUTO_TEST_CASE(aLeakInEveryTenthRunIsGrowthWhereThereAreEnough) {
    Values held;
    for (int run = 0; run < 100; ++run) {
        held.push_back(9 + run / 10);
    }
    BOOST_TEST(isGrowth(held, limitRiseCount));
}

BOOST_AUTO_TEST_CASE(whatTheFirstRunsTakeIsNoGrowth) {
    BOOST_TEST(!isGrowth({3, 9, 9, 9, 9}, limitRiseCount));
    BOOST_TEST(!isGrowth({1000, 90000, 90000, 90000, 90000}, limitRiseKiB));
}

BOOST_AUTO_TEST_CASE(whatComesAndGoesIsNoGrowth) {
    // A thread that is still listed at the worst moment.
    BOOST_TEST(!isGrowth({1, 1, 1, 1, 2}, limitRiseCount));
    BOOST_TEST(!isGrowth({1, 2, 1, 2, 1, 2, 1, 2}, limitRiseCount));
}

BOOST_AUTO_TEST_CASE(memoryThatRisesByLessThanTheLimitIsNoGrowth) {
    BOOST_TEST(!isGrowth({20000, 20132, 20264, 20396, 20528}, limitRiseKiB));
    BOOST_TEST(isGrowth({20000, 20400, 20800, 21200, 21600}, limitRiseKiB));
}

BOOST_AUTO_TEST_CASE(tooFewRunsAreNotJudged) {
    const RepeatReport::Growth growth = growthOf("module, threads", {1, 2, 3}, limitRiseCount);
    BOOST_TEST(!growth.grows);
    BOOST_TEST(!growth.slope.has_value());
    BOOST_TEST(growth.remark() == "");
}

BOOST_AUTO_TEST_CASE(whatIsNotTheLibrarysIsMeasuredAndNotJudged) {
    const RepeatReport::Growth growth = growthOf("broker, threads", {1, 2, 3, 4, 5}, std::nullopt);
    BOOST_TEST(!growth.grows);
    BOOST_TEST(growth.slope.value() == 1.0);
}

BOOST_AUTO_TEST_SUITE_END()
