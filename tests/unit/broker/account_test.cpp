// Charges and accounts.
#define BOOST_TEST_MODULE account

#include "broker/memory/account.h"

#include <sys/wait.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <csignal>
#include <memory>

using kavri::broker::Account;
using kavri::broker::Charge;

BOOST_AUTO_TEST_CASE(aChargeEndsWithWhatWasCharged) {
    Account account;
    {
        const Charge first(account, 10);
        const Charge second(account, 5);
        BOOST_TEST(account.bytes() == 15U);
    }
    BOOST_TEST(account.bytes() == 0U);
}

BOOST_AUTO_TEST_CASE(aChargeGrowsAndShrinks) {
    Account account;
    Charge charge(account);
    charge.grow(10);
    charge.shrink(4);
    BOOST_TEST(charge.bytes() == 6U);
    BOOST_TEST(account.bytes() == 6U);
}

BOOST_AUTO_TEST_CASE(aMovedChargeIsChargedOnce) {
    Account account;
    Charge first(account, 10);
    Charge second(std::move(first));
    BOOST_TEST(account.bytes() == 10U);
    Charge third(account, 3);
    third = std::move(second);
    BOOST_TEST(account.bytes() == 10U);
    BOOST_TEST(third.bytes() == 10U);
    third = {};
    BOOST_TEST(account.bytes() == 0U);
}

BOOST_AUTO_TEST_CASE(accountsAreApart) {
    Account one;
    Account other;
    const Charge charge(one, 10);
    BOOST_TEST(other.bytes() == 0U);
}

BOOST_AUTO_TEST_CASE(anAccountDoesNotEndBeforeItsCharges) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(STDERR_FILENO);
        std::signal(SIGABRT, SIG_DFL);
        auto account = std::make_unique<Account>();
        const Charge outlives(*account, 1);
        account.reset();
        ::_exit(0);
    }
    int status = 0;
    BOOST_REQUIRE(::waitpid(child, &status, 0) == child);
    BOOST_TEST(WIFSIGNALED(status));
}
