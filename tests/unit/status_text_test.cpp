// Every status has a text, and no other number has.
#define BOOST_TEST_MODULE statusText

#include <kavri/core.h>

#include <boost/test/unit_test.hpp>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string text(int number) {
    return kavri_core_status_text(static_cast<kavri_core_status>(number));
}

}  // namespace

// Programs were compiled with these numbers, and they cross the wire.
BOOST_AUTO_TEST_CASE(theNumbersStayWhatTheyAreAndAreNamedByWhatTheyMean) {
    const std::vector<std::pair<kavri_core_status, std::string>> statuses = {
        {KAVRI_CORE_STATUS_NO_ERROR, "no error"},
        {KAVRI_CORE_STATUS_INVALID_ARGUMENT, "invalid argument"},
        {KAVRI_CORE_STATUS_NOT_INITIALISED, "library not initialised"},
        {KAVRI_CORE_STATUS_OUT_OF_RESOURCES, "out of resources"},
        {KAVRI_CORE_STATUS_IPC_FAILED, "operation not possible in this state"},
        {KAVRI_CORE_STATUS_IPC_NO_MESSAGE, "no message"},
        {KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE, "broker unavailable"},
        {KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID, "broker address invalid"},
        {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE, "broker speaks another protocol version"},
        {KAVRI_CORE_STATUS_IPC_REFUSED, "refused by the broker"},
        {KAVRI_CORE_STATUS_IPC_NO_RESPONDER, "no responder"},
        {KAVRI_CORE_STATUS_IPC_RESPONDER_LOST, "responder lost"},
        {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, "connection lost"},
        {KAVRI_CORE_STATUS_IPC_TOO_LARGE, "message too large"},
        {KAVRI_CORE_STATUS_IPC_OVERLOADED, "overloaded"},
        {KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN, "category already served"},
        {KAVRI_CORE_STATUS_IPC_OTHER_PROCESS, "made by the process that forked this one"}};
    BOOST_TEST(statuses.size() == KAVRI_CORE_STATUS_IPC_OTHER_PROCESS + 1U);
    for (std::size_t number = 0; number < statuses.size(); ++number) {
        BOOST_TEST(statuses[number].first == static_cast<kavri_core_status>(number));
        BOOST_TEST(text(static_cast<int>(number)) == statuses[number].second);
    }
}

BOOST_AUTO_TEST_CASE(aNumberThatIsNoStatusIsUnknown) {
    for (const int number : {KAVRI_CORE_STATUS_IPC_OTHER_PROCESS + 1, -1, 65535,
                             std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        BOOST_TEST(text(number) == "unknown status");
    }
}
