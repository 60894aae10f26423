// Frames from bytes that reads bring in parts of any size, without a socket.
#define BOOST_TEST_MODULE frameReader

#include "core/connection/frame_reader.h"

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <cstring>
#include <numeric>

#include "support/frames.h"

using namespace kavri::tests;
using kavri::core::FrameReader;
using kavri::core::Text;
namespace wire = kavri::wire;

namespace {

struct Reader : FrameReader {
    // Puts bytes where a read would, as far as there is room; returns how many.
    std::size_t readSome(std::string_view bytes) {
        const Room given = room();
        std::size_t count = 0;
        for (int i = 0; i < given.count; ++i) {
            const iovec piece = given.pieces.at(static_cast<std::size_t>(i));
            const std::size_t part = std::min(piece.iov_len, bytes.size() - count);
            std::memcpy(piece.iov_base, bytes.data() + count, part);
            count += part;
        }
        received(count);
        return count;
    }
    // The same in reads of at most `most` bytes, with the frames that come out, one a line.
    std::string readAll(std::string_view bytes, std::size_t most) {
        std::string text;
        while (!bytes.empty()) {
            bytes.remove_prefix(readSome(bytes.substr(0, most)));
            while (const auto frame = nextFrame()) {
                text += describe(*frame) + "\n";
                dropFrame();
            }
        }
        return text;
    }
};

std::string payloadOf(std::size_t bytes) {
    std::string payload(bytes, ' ');
    std::iota(payload.begin(), payload.end(), 'a');
    std::replace(payload.begin(), payload.end(), '\0', 'x');
    return payload;
}

Frame response(std::uint64_t token, std::string_view payload) {
    return makeFrame(FrameType::response, token, {"category", "identifier", "uuid", payload});
}

const std::string large = payloadOf(100'000);

}  // namespace

BOOST_FIXTURE_TEST_SUITE(frameReader, Reader)

BOOST_AUTO_TEST_CASE(aFrameStaysTheNextUntilItIsDropped) {
    readSome(encode(response(1, "one")) + encode(response(2, "two")));
    BOOST_TEST(nextFrame()->token == 1U);
    BOOST_TEST(nextFrame()->token == 1U);
    dropFrame();
    BOOST_TEST(nextFrame()->token == 2U);
    dropFrame();
    BOOST_TEST(!nextFrame().has_value());
}

BOOST_AUTO_TEST_CASE(framesAreTheSameHoweverReadsCutThem) {
    const std::string bytes = encode(response(1, "one")) + encode(response(2, large)) +
                              encode(response(3, "")) + encode(response(4, large)) +
                              encode(response(5, large)) + encode(response(6, "six"));
    const std::string expected = describeAll(bytes) + "\n";
    for (const std::size_t most : {1U, 7U, 31U, 32U, 33U, 60U, 511U, 4096U, 65'536U, 1'000'000U}) {
        Reader reader;
        BOOST_TEST(reader.readAll(bytes, most) == expected);
    }
}

BOOST_AUTO_TEST_CASE(aLargePayloadComesInMemoryOfItsOwn) {
    const std::string bytes = encode(response(1, large));
    std::string_view left = bytes;
    while (!left.empty()) {
        BOOST_TEST(!nextFrame().has_value());
        left.remove_prefix(readSome(left));
    }
    const auto frame = nextFrame();
    BOOST_REQUIRE(frame.has_value());
    BOOST_TEST(((*frame)[Field::payload].data() == largePayload().get()));
    const Text taken = std::move(largePayload());
    dropFrame();
    BOOST_TEST((taken.get() == large));  // with the NUL at its end
}

BOOST_AUTO_TEST_CASE(aSmallPayloadComesInTheBuffer) {
    readSome(encode(response(1, "small")));
    BOOST_TEST(nextFrame().has_value());
    BOOST_TEST((largePayload() == nullptr));
}

BOOST_AUTO_TEST_CASE(namesOfAnyAllowedLengthFit) {
    const std::string longest(wire::fieldLimitBytes, 'n');
    const std::string bytes =
        encode(makeFrame(FrameType::response, 1, {longest, longest, longest, large}));
    BOOST_TEST(readAll(bytes, bytes.size()) == describeAll(bytes) + "\n");
}

BOOST_AUTO_TEST_CASE(behindALargeFrameLittleIsRead) {
    const std::string bytes = encode(response(1, large));
    readSome(std::string_view(bytes).substr(0, 1000));
    BOOST_TEST(!nextFrame().has_value());
    const Room given = room();
    BOOST_TEST(given.count == 2);
    BOOST_TEST(given.pieces[0].iov_len == bytes.size() - 1000);
    BOOST_TEST(given.pieces[1].iov_len == wire::LargeFrame::readBehindBytes);
}

BOOST_AUTO_TEST_CASE(afterMalformedBytesThereIsNoFrame) {
    readSome(encode(response(1, "one")) + std::string(wire::headerBytes, 'x'));
    BOOST_TEST(nextFrame().has_value());
    dropFrame();
    BOOST_TEST(!isMalformed());
    BOOST_TEST(!nextFrame().has_value());
    BOOST_TEST(isMalformed());
    BOOST_TEST(!nextFrame().has_value());
}

BOOST_AUTO_TEST_CASE(aNulInALargePayloadIsMalformed) {
    std::string bytes = encode(response(1, large));
    bytes[bytes.size() - 10] = '\0';
    BOOST_TEST(readAll(bytes, bytes.size()).empty());
    BOOST_TEST(isMalformed());
}

BOOST_AUTO_TEST_CASE(theNegotiatedLimitHolds) {
    setPayloadLimit(10);
    BOOST_TEST(payloadLimitBytes() == 10U);
    readSome(encode(response(1, std::string(10, 'x'))));
    BOOST_TEST(nextFrame().has_value());
    dropFrame();
    readSome(encode(response(2, std::string(11, 'x'))));
    BOOST_TEST(!nextFrame().has_value());
    BOOST_TEST(isMalformed());
}

BOOST_AUTO_TEST_SUITE_END()
