// Work that several threads share is done once, and ends when it is to end.
#define BOOST_TEST_MODULE workShare

#include "conformance/run/work_share.h"

#include <boost/test/unit_test.hpp>
#include <latch>
#include <mutex>
#include <set>
#include <stdexcept>

using kavri::conformance::WorkShare;

BOOST_AUTO_TEST_CASE(everyPieceIsTakenOnce) {
    WorkShare share(1000);
    std::mutex mutex;
    std::multiset<std::size_t> taken;
    share.runOn(4, [&] {
        while (const auto number = share.take()) {
            const std::lock_guard lock(mutex);
            taken.insert(*number);
        }
    });
    BOOST_TEST(taken.size() == 1000U);
    BOOST_TEST(*taken.begin() == 0U);
    BOOST_TEST(*taken.rbegin() == 999U);
    BOOST_TEST(std::set<std::size_t>(taken.begin(), taken.end()).size() == 1000U);
}

BOOST_AUTO_TEST_CASE(afterAStopNothingIsTaken) {
    WorkShare share(3);
    BOOST_TEST(share.take().has_value());
    share.stop();
    BOOST_TEST(!share.take().has_value());
}

BOOST_AUTO_TEST_CASE(anExceptionStopsAllThreadsAndIsRethrownOnceAllHaveEnded) {
    WorkShare share(1000);
    std::latch bothAtWork(2);
    bool hasEnded = false;
    const auto runs = [&] {
        share.runOn(2, [&] {
            const auto number = share.take();
            bothAtWork.arrive_and_wait();
            if (number == 0U) {
                throw std::runtime_error("no more");
            }
            while (share.take()) {
            }
            hasEnded = true;
        });
    };
    BOOST_CHECK_EXCEPTION(runs(), std::runtime_error, [](const std::runtime_error& error) {
        return std::string(error.what()) == "no more";
    });
    BOOST_TEST(hasEnded);
    BOOST_TEST(!share.take().has_value());
}
