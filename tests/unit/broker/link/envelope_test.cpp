// The head of every message between brokers: its layout, and what is none.
#define BOOST_TEST_MODULE link_envelope

#include "broker/link/envelope.h"

#include <boost/test/unit_test.hpp>
#include <limits>
#include <random>

using namespace kavri::broker;

namespace {

BrokerIdentity countingIdentity() {
    BrokerIdentity identity{};
    for (std::size_t i = 0; i < identity.size(); ++i) {
        identity[i] = static_cast<std::uint8_t>(0xf0 + i);
    }
    return identity;
}

std::string encoded(const Envelope& envelope, std::string_view content = {}) {
    std::string bytes;
    appendEncoded(envelope, bytes);
    return bytes.append(content);
}

const Envelope full{.kind = EnvelopeKind::frames,
                    .status = 0xfedc,
                    .sender = countingIdentity(),
                    .epoch = 0x8000000000000001U,
                    .number = std::numeric_limits<std::uint64_t>::max(),
                    .channel = 0x0102030405060708U,
                    .value = 0xfffefdfcfbfaf9f8U,
                    .heardEpoch = 0x1112131415161718U};

}  // namespace

BOOST_AUTO_TEST_CASE(whatIsEncodedIsOpened) {
    const std::string bytes = encoded(full, "content");
    const auto opened = openEnvelope(bytes);
    BOOST_REQUIRE(opened.has_value());
    BOOST_TEST((opened->envelope.kind == full.kind));
    BOOST_TEST(opened->envelope.status == full.status);
    BOOST_TEST((opened->envelope.sender == full.sender));
    BOOST_TEST(opened->envelope.epoch == full.epoch);
    BOOST_TEST(opened->envelope.number == full.number);
    BOOST_TEST(opened->envelope.channel == full.channel);
    BOOST_TEST(opened->envelope.value == full.value);
    BOOST_TEST(opened->envelope.heardEpoch == full.heardEpoch);
    BOOST_TEST(opened->content == "content");
}

// Brokers of other builds read it: the places of its values do not move.
BOOST_AUTO_TEST_CASE(theLayoutIsTheDocumentedOne) {
    const std::string bytes = encoded(full);
    const std::string expected(
        "\x01\x04\xdc\xfe\x00\x00\x00\x00"
        "\xf0\xf1\xf2\xf3\xf4\xf5\xf6\xf7\xf8\xf9\xfa\xfb\xfc\xfd\xfe\xff"
        "\x01\x00\x00\x00\x00\x00\x00\x80"
        "\xff\xff\xff\xff\xff\xff\xff\xff"
        "\x08\x07\x06\x05\x04\x03\x02\x01"
        "\xf8\xf9\xfa\xfb\xfc\xfd\xfe\xff"
        "\x18\x17\x16\x15\x14\x13\x12\x11",
        envelopeBytes);
    BOOST_TEST(bytes == expected);
}

BOOST_AUTO_TEST_CASE(encodingAppends) {
    std::string bytes = "before";
    appendEncoded(full, bytes);
    BOOST_TEST(bytes.substr(0, 6) == "before");
    BOOST_TEST(openEnvelope(std::string_view(bytes).substr(6)).has_value());
}

BOOST_AUTO_TEST_CASE(everyTruncatedOneIsNone) {
    const std::string bytes = encoded(full);
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        const std::string part = bytes.substr(0, length);  // in memory of just its size
        BOOST_TEST(!openEnvelope(part).has_value(), length << " bytes");
    }
    BOOST_TEST(openEnvelope(bytes)->content.empty());
}

BOOST_AUTO_TEST_CASE(onlyThisVersionAndKnownKindsAreOpened) {
    for (unsigned value = 0; value < 256; ++value) {
        std::string otherVersion = encoded(full);
        otherVersion[0] = static_cast<char>(value);
        BOOST_TEST(openEnvelope(otherVersion).has_value() == (value == 1), "version " << value);
        std::string otherKind = encoded(full);
        otherKind[1] = static_cast<char>(value);
        BOOST_TEST(openEnvelope(otherKind).has_value() == (value >= 1 && value <= 10),
                   "kind " << value);
    }
}

// Whatever is opened encodes to the same bytes, but for those that say nothing.
BOOST_AUTO_TEST_CASE(anyBytesAreOpenedOrNot) {
    std::mt19937 random(1);
    for (int i = 0; i < 10000; ++i) {
        std::string bytes(random() % 100, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        if (bytes.size() > 1 && i % 2 == 0) {
            bytes[0] = 1;
            bytes[1] = static_cast<char>(random() % 12);
        }
        if (const auto opened = openEnvelope(bytes)) {
            std::string again = encoded(opened->envelope, opened->content);
            again.replace(4, 4, bytes, 4, 4);
            BOOST_TEST(again == bytes);
        }
    }
}
