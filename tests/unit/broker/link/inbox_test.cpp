// What waits for a session is charged while it waits.
#define BOOST_TEST_MODULE link_inbox

#include "broker/link/inbox.h"

#include <boost/test/unit_test.hpp>

using namespace kavri::broker;

BOOST_AUTO_TEST_CASE(whatWaitsLeavesInItsOrderAndIsCharged) {
    Account account;
    Inbox inbox(account);
    BOOST_TEST(inbox.empty());
    inbox.add("one");
    inbox.add("three");
    BOOST_TEST(inbox.bytes() == 8U);
    BOOST_TEST(account.bytes() == 8U);
    BOOST_TEST(inbox.take() == "one");
    BOOST_TEST(account.bytes() == 5U);
    BOOST_TEST(inbox.take() == "three");
    BOOST_TEST(account.bytes() == 0U);
    BOOST_TEST(inbox.empty());
}

BOOST_AUTO_TEST_CASE(whatIsLeftIsReturnedWithIt) {
    Account account;
    {
        Inbox inbox(account);
        inbox.add("left");
        BOOST_TEST(account.bytes() == 4U);
    }
    BOOST_TEST(account.bytes() == 0U);
}
