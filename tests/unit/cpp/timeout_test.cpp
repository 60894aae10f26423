// Durations as the time-outs of the C functions.
#define BOOST_TEST_MODULE cppTimeout

#include <boost/test/unit_test.hpp>
#include <climits>
#include <cmath>
#include <kavri/kavri.hpp>

using namespace std::chrono_literals;
using kavri::Timeout;

BOOST_AUTO_TEST_CASE(wholeMillisecondsStayWhatTheyAre) {
    for (const int ms : {0, 1, 2, 3, 999, 1001, 123456789, INT_MAX - 1, INT_MAX}) {
        BOOST_TEST(Timeout(std::chrono::milliseconds(ms)).milliseconds() == ms);
        BOOST_TEST(
            Timeout(std::chrono::nanoseconds(std::chrono::milliseconds(ms))).milliseconds() == ms);
    }
    BOOST_TEST(Timeout(2min).milliseconds() == 120'000);
}

BOOST_AUTO_TEST_CASE(partsOfAMillisecondAreRoundedUp) {
    BOOST_TEST(Timeout(1ns).milliseconds() == 1);
    BOOST_TEST(Timeout(1001us).milliseconds() == 2);
    BOOST_TEST(Timeout(std::chrono::duration<double>(0.0105)).milliseconds() == 11);
}

BOOST_AUTO_TEST_CASE(lessThanZeroDoesNotWait) {
    for (const auto time : {-1ns, -1'000'000'000ns, std::chrono::nanoseconds::min()}) {
        BOOST_TEST(Timeout(time).milliseconds() == 0);
    }
    BOOST_TEST(Timeout(std::chrono::duration<double>(std::nan(""))).milliseconds() == 0);
}

BOOST_AUTO_TEST_CASE(tooLongIsTheLongest) {
    BOOST_TEST(Timeout(std::chrono::milliseconds(INT_MAX) + 1ns).milliseconds() == INT_MAX);
    BOOST_TEST(Timeout(std::chrono::hours::max()).milliseconds() == INT_MAX);
    BOOST_TEST(Timeout(std::chrono::milliseconds::max()).milliseconds() == INT_MAX);
    BOOST_TEST(Timeout(std::chrono::duration<float>(INFINITY)).milliseconds() == INT_MAX);
    BOOST_TEST(!Timeout(std::chrono::hours::max()).isUnlimited());
}

BOOST_AUTO_TEST_CASE(foreverHasNoLimit) {
    BOOST_TEST(kavri::forever.isUnlimited());
    BOOST_TEST(kavri::forever.milliseconds() == -1);
    static_assert(Timeout(5s).milliseconds() == 5000, "known to the compiler");
}
