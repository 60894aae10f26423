// Percentiles: right to within one percent, whatever the spread.
#define BOOST_TEST_MODULE latencies
#include "base/latencies.h"

#include <boost/test/unit_test.hpp>
#include <random>

using kavri::base::Latencies;
using std::chrono::nanoseconds;

BOOST_AUTO_TEST_CASE(nothingMeasuredIsZero) {
    const Latencies latencies;
    BOOST_TEST(latencies.count() == 0U);
    BOOST_TEST(latencies.percentile(0.5).count() == 0);
    BOOST_TEST(latencies.least().count() == 0);
    BOOST_TEST(latencies.most().count() == 0);
}

BOOST_AUTO_TEST_CASE(oneDurationIsEveryPercentile) {
    Latencies latencies;
    latencies.add(nanoseconds(12'345));
    for (const double share : {0.001, 0.5, 0.999, 1.0}) {
        BOOST_TEST(latencies.percentile(share).count() == 12'345);
    }
    BOOST_TEST(latencies.least().count() == 12'345);
}

BOOST_AUTO_TEST_CASE(smallDurationsAreExact) {
    Latencies latencies;
    for (int value = 1; value <= 100; ++value) {
        latencies.add(nanoseconds(value));
    }
    BOOST_TEST(latencies.percentile(0.01).count() == 1);
    BOOST_TEST(latencies.percentile(0.5).count() == 50);
    BOOST_TEST(latencies.percentile(0.99).count() == 99);
    BOOST_TEST(latencies.percentile(1.0).count() == 100);
}

BOOST_AUTO_TEST_CASE(percentilesAgreeWithTheSortedValues) {
    std::mt19937_64 random(7);
    std::lognormal_distribution<double> spread(10, 2);
    std::vector<std::int64_t> values;
    Latencies latencies;
    for (int i = 0; i < 20'000; ++i) {
        values.push_back(static_cast<std::int64_t>(spread(random)));
        latencies.add(nanoseconds(values.back()));
    }
    std::sort(values.begin(), values.end());
    for (const double share : {0.001, 0.1, 0.5, 0.9, 0.99, 0.999}) {
        const auto rank = static_cast<std::size_t>(share * static_cast<double>(values.size())) - 1;
        const auto exact = static_cast<double>(values[rank]);
        const auto found = static_cast<double>(latencies.percentile(share).count());
        BOOST_TEST(found >= exact);
        BOOST_TEST(found <= exact * 1.01 + 1);
    }
    BOOST_TEST(latencies.most().count() == values.back());
    BOOST_TEST(latencies.least().count() == values.front());
}
