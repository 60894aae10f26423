// Texts that are cut.
#define BOOST_TEST_MODULE boundedText

#include "base/bounded_text.h"

#include <boost/test/unit_test.hpp>

using kavri::base::bounded;

BOOST_AUTO_TEST_SUITE(boundedText)

BOOST_AUTO_TEST_CASE(whatFitsStays) {
    BOOST_TEST(bounded("", 0) == "");
    BOOST_TEST(bounded("12345", 5) == "12345");
}

BOOST_AUTO_TEST_CASE(whatDoesNotSaysHowMuchIsMissing) {
    BOOST_TEST(bounded("123456", 5) == "12345… (1 byte more)");
    BOOST_TEST(bounded("1234567", 5) == "12345… (2 bytes more)");
    BOOST_TEST(bounded("12", 0) == "… (2 bytes more)");
}

BOOST_AUTO_TEST_CASE(noCharacterIsDivided) {
    BOOST_TEST(bounded("a\xc3\xa4z", 2) == "a… (3 bytes more)");
    BOOST_TEST(bounded("a\xf0\x9f\x98\x80z", 4) == "a… (5 bytes more)");
    BOOST_TEST(bounded("a\xf0\x9f\x98\x80z", 5) == "a\xf0\x9f\x98\x80… (1 byte more)");
}

BOOST_AUTO_TEST_CASE(bytesThatAreNoCharactersAreDividedAnywhere) {
    BOOST_TEST(bounded("\x80\x80\x80\x80\x80\x80\x80", 6).ends_with(" more)"));
    BOOST_TEST(bounded("\x80\x80\x80\x80\x80\x80\x80", 6).starts_with("\x80\x80"));
}

BOOST_AUTO_TEST_SUITE_END()
