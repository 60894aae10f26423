// The changes of a connection that wait to be delivered: in order, the latest where there
// are too many, and their reasons within bounds.
#define BOOST_TEST_MODULE connectionChanges

#include "core/endpoint/connection_changes.h"

#include <boost/test/unit_test.hpp>
#include <string>
#include <vector>

using kavri::core::ConnectionChange;
using kavri::core::ConnectionChanges;

namespace {

struct Changes : ConnectionChanges {
    void addNumbers(int first, int count) {
        for (int number = first; number < first + count; ++number) {
            add({KAVRI_CORE_IPC_CONNECTION_BROKEN, KAVRI_CORE_STATUS_IPC_CONNECTION_LOST,
                 std::to_string(number)});
        }
    }
    std::vector<std::string> takeAll() {
        std::vector<std::string> reasons;
        while (!isEmpty()) {
            const std::string next = oldest().reason.data();
            reasons.emplace_back(take().reason.data());
            BOOST_TEST(reasons.back() == next);
        }
        return reasons;
    }
};

std::vector<std::string> numbers(int first, int count) {
    std::vector<std::string> result;
    for (int number = first; number < first + count; ++number) {
        result.push_back(std::to_string(number));
    }
    return result;
}

std::string keptOf(const std::string& reason) {
    return ConnectionChange(KAVRI_CORE_IPC_CONNECTION_BROKEN, KAVRI_CORE_STATUS_IPC_OVERLOADED,
                            reason)
        .reason.data();
}

}  // namespace

BOOST_FIXTURE_TEST_SUITE(connectionChanges, Changes)

BOOST_AUTO_TEST_CASE(thereAreNoneAtFirst) {
    BOOST_TEST(isEmpty());
}

BOOST_AUTO_TEST_CASE(theyComeInTheirOrder) {
    addNumbers(0, 16);
    BOOST_TEST(takeAll() == numbers(0, 16), boost::test_tools::per_element());
    BOOST_TEST(isEmpty());
}

BOOST_AUTO_TEST_CASE(ofFortyTheLatestSixteenAreKept) {
    addNumbers(0, 40);
    BOOST_TEST(takeAll() == numbers(24, 16), boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(theRingGoesRoundWhereverItBegins) {
    for (int begin = 0; begin < 40; ++begin) {
        addNumbers(0, 1);
        take();
        addNumbers(begin, 17);
        BOOST_TEST(takeAll() == numbers(begin + 1, 16), boost::test_tools::per_element());
    }
}

BOOST_AUTO_TEST_CASE(aReasonIsCutAtTheLengthThatIsPromised) {
    BOOST_TEST(keptOf("").empty());
    BOOST_TEST(keptOf(std::string(199, 'r')) == std::string(199, 'r'));
    BOOST_TEST(keptOf(std::string(200, 'r')) == std::string(199, 'r'));
    BOOST_TEST(keptOf(std::string(100'000, 'r')) == std::string(199, 'r'));
}

BOOST_AUTO_TEST_SUITE_END()
