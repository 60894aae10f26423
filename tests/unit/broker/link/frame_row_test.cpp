// Rows of frames: where each ends, whatever the bytes say, and what is copied from a queue.
#define BOOST_TEST_MODULE link_frame_row

#include "broker/link/frame_row.h"

#include <boost/test/unit_test.hpp>
#include <vector>

#include "support/conversation.h"

using namespace kavri::broker;
using namespace kavri::tests;

namespace {

std::string frameOf(std::size_t bytes, std::string payload = {}) {
    return encode(requestOfSize(1, bytes, payload));
}

// Gives the bytes as a send queue would, in pieces that end anywhere.
std::string copied(std::string row, std::size_t pieceBytes, std::size_t most) {
    std::vector<iovec> pieces;
    for (std::size_t at = 0; at < row.size(); at += pieceBytes) {
        pieces.push_back({&row[at], std::min(pieceBytes, row.size() - at)});
    }
    std::string copy = "left from before";
    copyFrames(pieces, most, copy);
    return copy;
}

std::string withLength(std::uint32_t length, std::size_t bytes) {
    std::string frame(bytes, 'x');
    for (std::size_t i = 0; i < 4 && i < bytes; ++i) {
        frame[i] = static_cast<char>(length >> (8 * i));
    }
    return frame;
}

}  // namespace

BOOST_AUTO_TEST_CASE(aFrameIsAsLongAsItsHeaderSays) {
    BOOST_TEST(firstFrameBytes(frameOf(100)) == 100U);
    BOOST_TEST(firstFrameBytes(frameOf(100).substr(0, 32)) == 100U);
    BOOST_TEST(firstFrameBytes(frameOf(100).substr(0, 31)) == 0U);
    BOOST_TEST(firstFrameBytes("") == 0U);
    BOOST_TEST(firstFrameBytes(withLength(31, 40)) == 0U);
    BOOST_TEST(firstFrameBytes(withLength(0, 40)) == 0U);
    BOOST_TEST(firstFrameBytes(withLength(UINT32_MAX, 40)) == UINT32_MAX);
}

BOOST_AUTO_TEST_CASE(onlyWholeFramesCount) {
    const std::string row = frameOf(100) + frameOf(50) + frameOf(70);
    for (std::size_t length = 0; length <= row.size(); ++length) {
        const std::size_t whole = length < 100 ? 0 : length < 150 ? 100 : length < 220 ? 150 : 220;
        BOOST_TEST(wholeFrameBytes(row.substr(0, length), SIZE_MAX) == whole);
        BOOST_TEST(wholeFrameBytes(row, length) == whole);
        BOOST_TEST(isWholeFrames(row.substr(0, length)) == (whole == length));
    }
}

BOOST_AUTO_TEST_CASE(wrongLengthsAreNoWholeFrames) {
    for (const std::uint32_t length : {0U, 1U, 31U, 41U, 1U << 31U, UINT32_MAX}) {
        BOOST_TEST(!isWholeFrames(withLength(length, 40)), length);
        BOOST_TEST(!isWholeFrames(frameOf(60) + withLength(length, 40)), length);
    }
    BOOST_TEST(isWholeFrames(withLength(40, 40)));
}

BOOST_AUTO_TEST_CASE(framesAreCopiedUpToALimit) {
    const std::string row = frameOf(100) + frameOf(60) + frameOf(70);
    for (const std::size_t pieceBytes : {1U, 7U, 50U, 100U, 230U}) {
        BOOST_TEST(copied(row, pieceBytes, 1000) == row);
        BOOST_TEST(copied(row, pieceBytes, 230) == row);
        BOOST_TEST(copied(row, pieceBytes, 229) == row.substr(0, 160));
        BOOST_TEST(copied(row, pieceBytes, 160) == row.substr(0, 160));
        BOOST_TEST(copied(row, pieceBytes, 100) == row.substr(0, 100));
    }
}

BOOST_AUTO_TEST_CASE(aLongFirstFrameIsCopiedAlone) {
    const std::string row = frameOf(100) + frameOf(60);
    for (const std::size_t most : {1U, 31U, 32U, 99U}) {
        for (const std::size_t pieceBytes : {1U, 40U, 160U}) {
            BOOST_TEST(copied(row, pieceBytes, most) == row.substr(0, 100));
        }
    }
    BOOST_TEST(copied("", 1, 100).empty());
}
