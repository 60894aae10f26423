// The limits in a welcome: what is read, what is ignored, and what is malformed.
#define BOOST_TEST_MODULE negotiatedLimits

#include "core/connection/negotiated_limits.h"

#include <boost/test/unit_test.hpp>

using kavri::core::parseLimits;
namespace wire = kavri::wire;

namespace {

const std::size_t usual = wire::Limits{}.payloadBytes;

void expectLimit(const std::string& text, std::size_t expected) {
    const auto limits = parseLimits(text);
    BOOST_TEST(limits.error.empty(), limits.error);
    BOOST_TEST(limits.payloadBytes == expected);
}

void expectError(const std::string& text, const std::string& line, const std::string& why) {
    BOOST_TEST(parseLimits(text).error ==
               "the limits in the broker's welcome are malformed: \"" + line + "\" " + why);
}

}  // namespace

BOOST_AUTO_TEST_CASE(theBrokersOwnTextIsRead) {
    expectLimit("payload_bytes=12345\nfield_bytes=65536\nopen_requests=65536\n", 12345);
}

BOOST_AUTO_TEST_CASE(withoutTheNameTheDefaultHolds) {
    expectLimit("", usual);
    expectLimit("field_bytes=65536\n", usual);
}

BOOST_AUTO_TEST_CASE(aNameCountsOnlyAsAWholeAndAtTheBeginningOfALine) {
    expectLimit("most_payload_bytes=10\n", usual);
    expectLimit("payload_bytes_later=10\n", usual);
    expectLimit("note=payload_bytes=10\n", usual);
    expectLimit("most_payload_bytes=10\npayload_bytes=20\n", 20);
}

BOOST_AUTO_TEST_CASE(unknownNamesMayHaveAnyValue) {
    expectLimit("colour=blue and green\nempty=\npayload_bytes=7\n", 7);
}

BOOST_AUTO_TEST_CASE(noBrokerMayRaiseTheCeiling) {
    expectLimit("payload_bytes=67108864\n", wire::payloadCeilingBytes);
    expectLimit("payload_bytes=67108865\n", wire::payloadCeilingBytes);
    expectLimit("payload_bytes=18446744073709551615\n", wire::payloadCeilingBytes);
}

BOOST_AUTO_TEST_CASE(aValueThatIsNoNumberIsMalformed) {
    for (const char* value :
         {"", "many", "-1", "+1", " 1", "1 ", "10x", "0x10", "1.5", "99999999999999999999999"}) {
        const std::string line = std::string("payload_bytes=") + value;
        expectError(line + "\n", line, "has no number that fits");
    }
}

BOOST_AUTO_TEST_CASE(aLineOfAnotherFormIsMalformed) {
    expectError("payload_bytes\n", "payload_bytes", "is not of the form name=value");
    expectError("=10\n", "=10", "is not of the form name=value");
    expectError("payload_bytes=10\n\n", "", "is not of the form name=value");
}

BOOST_AUTO_TEST_CASE(aLineThatIsCutOffIsMalformed) {
    expectError("payload_bytes=10", "payload_bytes=10", "does not end with a line feed");
    expectError("payload_bytes=10\nfield", "field", "does not end with a line feed");
}

BOOST_AUTO_TEST_CASE(aLimitThatComesTwiceIsMalformed) {
    expectError("payload_bytes=10\npayload_bytes=10\n", "payload_bytes=10", "comes a second time");
}

BOOST_AUTO_TEST_CASE(aLongLineIsQuotedInPart) {
    expectError(std::string(1000, 'x') + "\n", std::string(60, 'x'),
                "is not of the form name=value");
}
