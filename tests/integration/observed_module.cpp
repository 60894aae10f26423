// A test module for the observer to watch: cases that pass, fail, stop and throw, with
// values that could be taken for the framework's own words.
#define BOOST_TEST_DYN_LINK
#define BOOST_TEST_MODULE observed
#include <boost/test/unit_test.hpp>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

const std::string hostile = "a] != [b has failed [\"\n\"]";

bool areBoth(int left, int right) {
    return left != 0 && right != 0;
}

}  // namespace

BOOST_AUTO_TEST_SUITE(checks)

BOOST_AUTO_TEST_CASE(comparisons) {
    const std::string plain = "plain";
    const int one = 1;
    BOOST_CHECK_EQUAL(1, one);
    BOOST_CHECK_EQUAL(hostile, plain);
    BOOST_CHECK_EQUAL(plain, hostile);
    BOOST_CHECK_EQUAL(std::string(), std::string(2000, 'x'));
    BOOST_CHECK_LT(one, 1);
}

BOOST_AUTO_TEST_CASE(otherChecks) {
    const int one = 1;
    BOOST_CHECK(one == 2);
    BOOST_TEST(one == 2);
    BOOST_CHECK_MESSAGE(one == 1, "it's 1");
    BOOST_CHECK_MESSAGE(one == 2, "it's 2");
    BOOST_CHECK_PREDICATE(areBoth, (one)(0));
    BOOST_ERROR("no check at all");
    BOOST_TEST_CONTEXT("the second round") {
        BOOST_CHECK(one == 3);
    }
}

BOOST_AUTO_TEST_CASE(noChecks) {
    BOOST_WARN_EQUAL(1, 2);
    BOOST_TEST_MESSAGE("said by the way");
}

BOOST_AUTO_TEST_CASE(checkOnAThread) {
    std::thread([] { BOOST_CHECK_EQUAL(1, 2); }).join();
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(ends)

BOOST_AUTO_TEST_CASE(byARequiredCheck) {
    BOOST_REQUIRE_EQUAL(1, 2);
    BOOST_CHECK(true);
}

BOOST_AUTO_TEST_CASE(byAnException) {
    BOOST_CHECK(true);
    throw std::runtime_error(hostile);
}

BOOST_AUTO_TEST_SUITE_END()
