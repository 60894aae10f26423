// Where frames begin and end in what has arrived, wherever the reads cut it.
#define BOOST_TEST_MODULE frameAssembler

#include "wire/frame_assembler.h"

#include <boost/test/unit_test.hpp>
#include <string>

#include "support/frames.h"

using namespace kavri::tests;
using kavri::wire::FirstFrame;
using kavri::wire::firstFrame;
using kavri::wire::FrameError;
using kavri::wire::headerBytes;
using kavri::wire::LargeFrame;
using State = kavri::wire::FirstFrame::State;

namespace {

constexpr std::size_t limit = 1000;

FirstFrame firstIn(std::string_view bytes) {
    return firstFrame(bytes.data(), bytes.size(), limit);
}

}  // namespace

BOOST_AUTO_TEST_CASE(atEachCutAFrameIsWhatHasArrivedOfIt) {
    const std::string bytes = encode(smallestFrame(FrameType::request, 7));
    for (std::size_t count = 0; count <= bytes.size() + 1; ++count) {
        const FirstFrame first = firstIn((bytes + "behind").substr(0, count));
        BOOST_TEST((first.state == (count < headerBytes    ? State::headerIncomplete
                                    : count < bytes.size() ? State::incomplete
                                                           : State::complete)));
        BOOST_TEST(first.frameBytes == (count < headerBytes ? 0 : bytes.size()));
    }
}

BOOST_AUTO_TEST_CASE(whatIsNoFrameIsKnownFromItsHeader) {
    const FirstFrame tooLong =
        firstIn(encode(makeFrame(FrameType::goodbye, 0, {.payload = std::string(limit + 1, 'x')})));
    BOOST_TEST((tooLong.state == State::malformed));
    BOOST_TEST((tooLong.error == FrameError::payloadTooLong));
    BOOST_TEST((firstIn(std::string(headerBytes, 'x')).state == State::malformed));
    BOOST_TEST((firstIn(std::string(headerBytes - 1, 'x')).state == State::headerIncomplete));
}

BOOST_AUTO_TEST_CASE(thereIsNoLargeFrameAtFirst) {
    const LargeFrame large;
    BOOST_TEST(!large.isBegun());
    BOOST_TEST(large.missingBytes() == 0U);
}

BOOST_AUTO_TEST_CASE(whileThereIsNoneAllThatIsReadLiesBehindIt) {
    LargeFrame large;
    BOOST_TEST(large.add(10) == 10U);
}

BOOST_AUTO_TEST_CASE(aLargeFrameArrivesInParts) {
    LargeFrame large;
    large.begin(100, 30);
    BOOST_TEST(large.isBegun());
    BOOST_TEST(!large.isComplete());
    BOOST_TEST(large.missingBytes() == 70U);
    BOOST_TEST(large.add(69) == 0U);
    BOOST_TEST(large.receivedBytes() == 99U);
    BOOST_TEST(!large.isComplete());
    BOOST_TEST(large.add(1) == 0U);
    BOOST_TEST(large.isComplete());
    BOOST_TEST(large.bytes() == 100U);
}

BOOST_AUTO_TEST_CASE(whatIsReadBeyondItsEndLiesBehindIt) {
    LargeFrame large;
    large.begin(100, 90);
    BOOST_TEST(large.add(10 + 25) == 25U);
    BOOST_TEST(large.isComplete());
    BOOST_TEST(large.add(5) == 5U);
}

BOOST_AUTO_TEST_CASE(afterItsEndTheNextOneMayBegin) {
    LargeFrame large;
    large.begin(100, 100);
    BOOST_TEST(large.isComplete());
    large.end();
    BOOST_TEST(!large.isBegun());
    large.begin(50, 0);
    BOOST_TEST(large.missingBytes() == 50U);
}
