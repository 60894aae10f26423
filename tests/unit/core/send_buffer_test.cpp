// What an endpoint keeps until it is written: order, large frames, taking back.
#define BOOST_TEST_MODULE sendBuffer

#include "core/endpoint/send_buffer.h"

#include <boost/test/unit_test.hpp>
#include <string>
#include <vector>

#include "support/frames.h"

using kavri::core::SendBuffer;
using namespace kavri::tests;

namespace {

Frame request(std::uint64_t token, std::string_view payload) {
    return makeFrame(FrameType::request, token, {"category", "identifier", "uuid", payload});
}

// All that a write would put into the socket.
std::string bytesOf(const SendBuffer::Write& write) {
    std::string bytes;
    for (std::size_t i = 0; i < write.count; ++i) {
        bytes.append(static_cast<const char*>(write.pieces[i].iov_base), write.pieces[i].iov_len);
    }
    return bytes;
}

const std::string largePayload(kavri::wire::largeFrameBytes, 'x');

}  // namespace

BOOST_AUTO_TEST_CASE(smallFramesStandBehindOneAnotherInOnePiece) {
    SendBuffer buffer;
    BOOST_TEST(buffer.isEmpty());
    BOOST_TEST(!buffer.append(request(1, "one")));
    BOOST_TEST(!buffer.append(request(2, "two")));
    SendBuffer::Write write;
    buffer.prepare(write, nullptr);
    BOOST_TEST(write.count == 1U);
    BOOST_TEST(write.total == buffer.size());
    BOOST_TEST(bytesOf(write) == encode(request(1, "one")) + encode(request(2, "two")));
}

BOOST_AUTO_TEST_CASE(aLargeFramesFieldsFollowFromWhereTheyAre) {
    SendBuffer buffer;
    const Frame large = request(2, largePayload);
    BOOST_TEST(!buffer.append(request(1, "one")));
    BOOST_TEST(buffer.append(large));
    SendBuffer::Write write;
    buffer.prepare(write, &large);
    BOOST_TEST(write.storage.back().iov_base == largePayload.data());
    BOOST_TEST((bytesOf(write) == encode(request(1, "one")) + encode(large)));
}

BOOST_AUTO_TEST_CASE(aWriteKnowsHowFarItCame) {
    SendBuffer buffer;
    const Frame large = request(1, largePayload);
    buffer.append(large);
    SendBuffer::Write write;
    buffer.prepare(write, &large);
    BOOST_TEST(write.written() == 0U);
    // As a write does that takes the first two pieces and a byte of the third.
    std::size_t taken = write.pieces[0].iov_len + write.pieces[1].iov_len + 1;
    write.pieces += 2;
    write.count -= 2;
    write.pieces[0] = {static_cast<char*>(write.pieces[0].iov_base) + 1,
                       write.pieces[0].iov_len - 1};
    BOOST_TEST(write.written() == taken);
}

BOOST_AUTO_TEST_CASE(whatIsTakenBackLeavesTheEarlierFrames) {
    SendBuffer buffer;
    buffer.append(request(1, "one"));
    const std::size_t earlier = buffer.size();
    buffer.append(request(2, "two"));
    buffer.truncate(earlier);
    buffer.consume(5);
    SendBuffer::Write write;
    buffer.prepare(write, nullptr);
    BOOST_TEST(bytesOf(write) == encode(request(1, "one")).substr(5));
}

BOOST_AUTO_TEST_CASE(aFullBufferIsWorthAWrite) {
    SendBuffer buffer;
    const std::string payload(1000, 'x');
    while (buffer.size() + 2000 < SendBuffer::writeBytes) {
        buffer.append(request(1, payload));
    }
    BOOST_TEST(!buffer.isWorthAWrite());
    for (int i = 0; i < 2; ++i) {
        buffer.append(request(1, payload));
    }
    BOOST_TEST(buffer.isWorthAWrite());
    buffer.clear();
    BOOST_TEST(buffer.isEmpty());
    BOOST_TEST(!buffer.isWorthAWrite());
}

namespace {

constexpr std::size_t limit = 1000;

struct Accepting {
    SendBuffer buffer;
    kavri::core::PendingRequests pending;

    std::size_t accept(std::vector<Frame>& frames) {
        return buffer.accept(frames, &pending, limit).count;
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(accepting, Accepting)

BOOST_AUTO_TEST_CASE(requestsGetTheirTokensInOrderAndArePending) {
    std::vector<Frame> frames = {request(0, "one"), request(0, "two")};
    BOOST_TEST(accept(frames) == 2U);
    BOOST_TEST(frames[0].token == 1U);
    BOOST_TEST(frames[1].token == 2U);
    BOOST_TEST(pending.nextToken() == 3U);
    BOOST_TEST(pending.close(2));
}

BOOST_AUTO_TEST_CASE(otherFramesKeepTheirTokens) {
    std::vector<Frame> frames = {request(77, "one")};
    BOOST_TEST(buffer.accept(frames, nullptr, limit).count == 1U);
    BOOST_TEST(frames[0].token == 77U);
}

BOOST_AUTO_TEST_CASE(aFrameAboveALimitIsNotAcceptedAndNoneBehindIt) {
    const std::string tooLong(limit + 1, 'x');
    std::vector<Frame> frames = {request(0, "one"), request(0, tooLong), request(0, "three")};
    BOOST_TEST(accept(frames) == 1U);
    BOOST_TEST(pending.nextToken() == 2U);
    BOOST_TEST(buffer.size() == encode(frames[0]).size());
    std::vector<Frame> first = {request(0, tooLong)};
    BOOST_TEST(accept(first) == 0U);
    const std::string name(kavri::wire::fieldLimitBytes + 1, 'x');
    first[0] = request(0, "one");
    first[0][Field::category] = name;
    BOOST_TEST(accept(first) == 0U);
}

BOOST_AUTO_TEST_CASE(aLargeFrameIsTheLast) {
    std::vector<Frame> frames = {request(0, "one"), request(0, largePayload), request(0, "three")};
    const SendBuffer::Accepted accepted =
        buffer.accept(frames, &pending, kavri::wire::payloadCeilingBytes);
    BOOST_TEST(accepted.count == 2U);
    BOOST_TEST(accepted.large == &frames[1]);
}

BOOST_AUTO_TEST_CASE(framesAreAcceptedUntilTheyAreWorthAWrite) {
    const std::string payload(limit, 'x');
    std::vector<Frame> frames(200, request(0, payload));
    const std::size_t accepted = accept(frames);
    BOOST_TEST(buffer.isWorthAWrite());
    BOOST_TEST(buffer.size() < SendBuffer::writeBytes + 2 * limit);
    BOOST_TEST(pending.nextToken() == accepted + 1);
}

BOOST_AUTO_TEST_SUITE_END()
