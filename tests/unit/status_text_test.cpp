// Every status has a text, and no other number has.
#define BOOST_TEST_MODULE statusText

#include <kavri/core.h>

#include <boost/test/unit_test.hpp>
#include <limits>
#include <set>
#include <string>

namespace {

std::string text(int number) {
    return kavri_core_status_text(static_cast<kavri_core_status>(number));
}

}  // namespace

BOOST_AUTO_TEST_CASE(everyStatusIsNamedByWhatItMeans) {
    BOOST_TEST(text(KAVRI_CORE_STATUS_NO_ERROR) == "no error");
    BOOST_TEST(text(KAVRI_CORE_STATUS_INVALID_ARGUMENT) == "invalid argument");
    BOOST_TEST(text(KAVRI_CORE_STATUS_NOT_INITIALISED) == "library not initialised");
    BOOST_TEST(text(KAVRI_CORE_STATUS_OUT_OF_RESOURCES) == "out of resources");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_FAILED) == "operation not possible in this state");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_NO_MESSAGE) == "no message");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE) == "broker unavailable");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID) == "broker address invalid");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_INCOMPATIBLE) ==
               "broker speaks another protocol version");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_REFUSED) == "refused by the broker");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_NO_RESPONDER) == "no responder");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_RESPONDER_LOST) == "responder lost");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_CONNECTION_LOST) == "connection lost");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_TOO_LARGE) == "message too large");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_OVERLOADED) == "overloaded");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN) == "category already served");
    BOOST_TEST(text(KAVRI_CORE_STATUS_IPC_OTHER_PROCESS) ==
               "made by the process that forked this one");
}

// Programs were compiled with these numbers, and they cross the wire.
BOOST_AUTO_TEST_CASE(theNumbersStayWhatTheyAre) {
    BOOST_TEST(KAVRI_CORE_STATUS_NO_ERROR == 0);
    BOOST_TEST(KAVRI_CORE_STATUS_INVALID_ARGUMENT == 1);
    BOOST_TEST(KAVRI_CORE_STATUS_NOT_INITIALISED == 2);
    BOOST_TEST(KAVRI_CORE_STATUS_OUT_OF_RESOURCES == 3);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_FAILED == 4);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_NO_MESSAGE == 5);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE == 6);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID == 7);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_INCOMPATIBLE == 8);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_REFUSED == 9);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_NO_RESPONDER == 10);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_RESPONDER_LOST == 11);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_CONNECTION_LOST == 12);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_TOO_LARGE == 13);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_OVERLOADED == 14);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN == 15);
    BOOST_TEST(KAVRI_CORE_STATUS_IPC_OTHER_PROCESS == 16);
}

BOOST_AUTO_TEST_CASE(noTwoStatusesHaveTheSameText) {
    std::set<std::string> texts;
    for (int number = 0; number <= KAVRI_CORE_STATUS_IPC_OTHER_PROCESS; ++number) {
        texts.insert(text(number));
    }
    BOOST_TEST(texts.size() == KAVRI_CORE_STATUS_IPC_OTHER_PROCESS + 1U);
    BOOST_TEST(!texts.contains("unknown status"));
}

BOOST_AUTO_TEST_CASE(aNumberThatIsNoStatusIsUnknown) {
    for (const int number : {KAVRI_CORE_STATUS_IPC_OTHER_PROCESS + 1, -1, 65535,
                             std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        BOOST_TEST(text(number) == "unknown status");
    }
}
