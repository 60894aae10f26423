// Paths of any length that fits become an address, longer ones an error.
#define BOOST_TEST_MODULE unixAddress

#include "base/unix_address.h"

#include <boost/test/unit_test.hpp>

using kavri::base::UnixAddress;

namespace {

std::string pathIn(const UnixAddress& address) {
    return reinterpret_cast<const sockaddr_un*>(address.get())->sun_path;
}

}  // namespace

BOOST_AUTO_TEST_CASE(itHoldsThePath) {
    const UnixAddress address("/run/some.sock");
    BOOST_TEST(address.get()->sa_family == AF_UNIX);
    BOOST_TEST(pathIn(address) == "/run/some.sock");
    BOOST_TEST(UnixAddress::size() == sizeof(sockaddr_un));
}

BOOST_AUTO_TEST_CASE(theLongestPathEndsWithANul) {
    const std::string longest(UnixAddress::longestPathBytes, 'x');
    BOOST_TEST(longest.size() == 107U);
    BOOST_TEST(pathIn(UnixAddress(longest)) == longest);
}

BOOST_AUTO_TEST_CASE(aLongerPathIsAnError) {
    BOOST_CHECK_THROW(UnixAddress(std::string(108, 'x')), std::length_error);
}
