// What waits for a peer: order, sharing, accounts and memory.
#define BOOST_TEST_MODULE sendQueue

#include "broker/memory/send_queue.h"

#include <boost/test/unit_test.hpp>
#include <random>
#include <set>

#include "support/frames.h"

using kavri::broker::Account;
using kavri::broker::BlockRef;
using kavri::broker::BufferPool;
using kavri::broker::SendQueue;
using namespace kavri::tests;

namespace {

constexpr std::size_t standard = BufferPool::standardBytes;

struct Peer {
    BufferPool pool;
    Account account;
    SendQueue sendQueue{pool, account};
};

std::vector<iovec> pieces(const SendQueue& sendQueue, std::size_t most = 1000) {
    std::vector<iovec> all(most);
    all.resize(sendQueue.gather(all.data(), most));
    return all;
}

// What the peer would be written, which stays there.
std::string content(const SendQueue& sendQueue) {
    std::string bytes;
    for (const iovec& piece : pieces(sendQueue)) {
        bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
    }
    return bytes;
}

// Bytes of which no two parts are alike.
std::string distinctBytes(std::size_t count, std::uint32_t seed = 1) {
    std::mt19937 random(seed);
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

BlockRef blockOf(BufferPool& pool, const std::string& bytes) {
    BlockRef block = pool.take(bytes.size());
    std::copy(bytes.begin(), bytes.end(), block->bytes());
    return block;
}

}  // namespace

BOOST_FIXTURE_TEST_CASE(aFreshSendQueueIsEmptyAndHoldsNothing, Peer) {
    BOOST_TEST(sendQueue.empty());
    BOOST_TEST(sendQueue.bytes() == 0U);
    BOOST_TEST(pieces(sendQueue).empty());
}

BOOST_FIXTURE_TEST_CASE(whatIsAppendedComesOutInOrder, Peer) {
    sendQueue.appendCopy("one, ");
    sendQueue.appendShared(blockOf(pool, "two, "), 5);
    sendQueue.appendCopy("three");
    BOOST_TEST(content(sendQueue) == "one, two, three");
    BOOST_TEST(sendQueue.bytes() == 15U);
}

BOOST_FIXTURE_TEST_CASE(aFrameIsAppendedAsItIsEncoded, Peer) {
    const Frame frame = makeFrame(FrameType::request, 7, {"test", "echo", "u", "payload"}, 3);
    sendQueue.append(frame);
    BOOST_TEST((content(sendQueue) == encode(frame)));
    BOOST_TEST(sendQueue.bytes() == kavri::wire::encodedBytes(frame));
}

BOOST_FIXTURE_TEST_CASE(smallFramesLeaveInOnePiece, Peer) {
    for (std::uint64_t i = 0; i < 100; ++i) {
        sendQueue.append(makeFrame(FrameType::ping, i));
    }
    BOOST_TEST(pieces(sendQueue).size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(copiesThatDoNotFitGoOnInTheNextBlock, Peer) {
    const std::string bytes = distinctBytes(3 * standard + 100);
    for (std::size_t i = 0; i < bytes.size(); i += 1000) {
        sendQueue.appendCopy(std::string_view(bytes).substr(i, 1000));
    }
    BOOST_TEST((content(sendQueue) == bytes));
    BOOST_TEST(pieces(sendQueue).size() == 4U);
}

BOOST_FIXTURE_TEST_CASE(aBlockIsFilledToItsLastByteFirst, Peer) {
    sendQueue.appendCopy(std::string(standard, 'x'));
    BOOST_TEST(pieces(sendQueue).size() == 1U);
    sendQueue.appendCopy("y");
    BOOST_TEST(pieces(sendQueue).size() == 2U);
}

BOOST_FIXTURE_TEST_CASE(aSharedBlockIsNotCopied, Peer) {
    const std::string bytes = distinctBytes(100'000);
    const BlockRef block = blockOf(pool, bytes);
    sendQueue.appendShared(block, bytes.size());
    BOOST_REQUIRE(pieces(sendQueue).size() == 1U);
    BOOST_TEST(pieces(sendQueue)[0].iov_base == static_cast<void*>(block->bytes()));
    BOOST_TEST(pieces(sendQueue)[0].iov_len == bytes.size());
}

BOOST_FIXTURE_TEST_CASE(oneBlockGoesToManyPeersAndEachTakesItAtItsOwnPace, Peer) {
    const std::string bytes = distinctBytes(50'000);
    Account otherAccount;
    SendQueue other(pool, otherAccount);
    {
        const BlockRef block = blockOf(pool, bytes);
        sendQueue.appendShared(block, bytes.size());
        other.appendShared(block, bytes.size());
        BOOST_TEST(block.isShared());
    }
    sendQueue.consume(49'999);
    BOOST_TEST((content(other) == bytes));
    sendQueue.consume(1);
    BOOST_TEST(sendQueue.empty());
    BOOST_TEST((content(other) == bytes));
}

// What is appended behind a shared block must not be written into it: others
// would see it.
BOOST_FIXTURE_TEST_CASE(nothingIsWrittenIntoABlockThatOthersHaveToo, Peer) {
    Account otherAccount;
    SendQueue other(pool, otherAccount);
    const BlockRef block = blockOf(pool, "shared");  // with room behind
    sendQueue.appendShared(block, 6);
    other.appendShared(block, 6);
    sendQueue.appendCopy(" and mine");
    other.appendCopy(" and another's");
    BOOST_TEST(content(sendQueue) == "shared and mine");
    BOOST_TEST(content(other) == "shared and another's");
}

BOOST_FIXTURE_TEST_CASE(partsAreConsumedByteByByte, Peer) {
    const std::string bytes = distinctBytes(standard + 200);
    sendQueue.appendCopy(std::string_view(bytes).substr(0, standard));
    sendQueue.appendShared(blockOf(pool, bytes.substr(standard, 100)), 100);
    sendQueue.appendCopy(std::string_view(bytes).substr(standard + 100));
    for (std::size_t taken = 0; taken < bytes.size();) {
        const std::size_t part = taken + 997 < standard ? 997 : 1;
        sendQueue.consume(part);
        taken += part;
        BOOST_REQUIRE(sendQueue.bytes() == bytes.size() - taken);
        BOOST_REQUIRE(sendQueue.empty() == (taken == bytes.size()));
        BOOST_REQUIRE((content(sendQueue) == bytes.substr(taken)));
    }
}

BOOST_FIXTURE_TEST_CASE(oneConsumptionMayTakeSeveralPieces, Peer) {
    for (const char* text : {"one", "two", "three"}) {
        sendQueue.appendShared(blockOf(pool, text), std::string_view(text).size());
    }
    sendQueue.consume(8);
    BOOST_TEST(content(sendQueue) == "ree");
    BOOST_TEST(pieces(sendQueue).size() == 1U);
}

BOOST_FIXTURE_TEST_CASE(whatIsAppendedAfterAPartWasTakenFollowsTheRest, Peer) {
    sendQueue.appendCopy("abcdef");
    sendQueue.consume(4);
    sendQueue.appendCopy("gh");
    BOOST_TEST(content(sendQueue) == "efgh");
    BOOST_TEST(pieces(sendQueue).size() == 1U);
    sendQueue.consume(4);
    sendQueue.appendCopy("again");
    BOOST_TEST(content(sendQueue) == "again");
}

BOOST_FIXTURE_TEST_CASE(noMoreIsGatheredThanIsAskedFor, Peer) {
    for (int i = 0; i < 10; ++i) {
        sendQueue.appendShared(blockOf(pool, std::to_string(i)), 1);
    }
    BOOST_TEST(pieces(sendQueue, 0).empty());
    const std::vector<iovec> first = pieces(sendQueue, 3);
    BOOST_REQUIRE(first.size() == 3U);
    BOOST_TEST(*static_cast<char*>(first[0].iov_base) == '0');
    BOOST_TEST(*static_cast<char*>(first[2].iov_base) == '2');
    BOOST_TEST(pieces(sendQueue, 10).size() == 10U);
    BOOST_TEST(pieces(sendQueue, 11).size() == 10U);
}

BOOST_FIXTURE_TEST_CASE(theUsersAccountIsTheSumOfHisSendQueues, Peer) {
    {
        SendQueue another(pool, account);
        sendQueue.appendCopy("12345");
        another.appendShared(blockOf(pool, "1234567"), 7);
        BOOST_TEST(account.bytes() == 12U);
        sendQueue.consume(2);
        BOOST_TEST(account.bytes() == 10U);
        another.append(makeFrame(FrameType::ping, 1));
        BOOST_TEST(account.bytes() == 42U);
        another.consume(8);
        BOOST_TEST(account.bytes() == 34U);
    }
    BOOST_TEST(account.bytes() == 3U);  // the other is gone, with what was left in it
    sendQueue.clear();
    BOOST_TEST(account.bytes() == 0U);
}

BOOST_FIXTURE_TEST_CASE(aClearedSendQueueIsAsGoodAsNew, Peer) {
    sendQueue.appendCopy(std::string(3 * standard, 'x'));
    sendQueue.consume(10);
    sendQueue.clear();
    BOOST_TEST(sendQueue.empty());
    BOOST_TEST(pieces(sendQueue).empty());
    sendQueue.appendCopy("new");
    BOOST_TEST(content(sendQueue) == "new");
    BOOST_TEST(account.bytes() == 3U);
}

// A chain of pieces that freed itself by recursion would end the program here.
BOOST_FIXTURE_TEST_CASE(aSendQueueOfVeryManyPiecesGoesQuietly, Peer) {
    const BlockRef block = blockOf(pool, "x");
    for (int i = 0; i < 300'000; ++i) {
        sendQueue.appendShared(block, 1);
    }
    BOOST_TEST(account.bytes() == 300'000U);
    sendQueue.clear();
    BOOST_TEST(account.bytes() == 0U);
    BOOST_TEST(!block.isShared());
}

BOOST_FIXTURE_TEST_CASE(anEmptiedSendQueueGivesItsBlocksBack, Peer) {
    const BlockRef block = blockOf(pool, "shared");
    sendQueue.appendShared(block, 6);
    BOOST_TEST(block.isShared());
    sendQueue.consume(5);
    BOOST_TEST(block.isShared());
    sendQueue.consume(1);
    BOOST_TEST(!block.isShared());
}

BOOST_AUTO_TEST_CASE(thePoolGivesTheSameMemoryAgain) {
    BufferPool pool;
    const char* used = pool.take(1)->bytes();
    const BlockRef again = pool.take(standard);
    BOOST_TEST(static_cast<const void*>(again->bytes()) == static_cast<const void*>(used));
    BOOST_TEST(again->capacity() == standard);
    const BlockRef another = pool.take(1);
    BOOST_TEST(static_cast<const void*>(another->bytes()) != static_cast<const void*>(used));
}

BOOST_AUTO_TEST_CASE(aLargeBlockHasItsOwnSizeAndServesNoSmallOne) {
    BufferPool pool;
    BOOST_TEST(pool.take(standard + 1)->capacity() == standard + 1);
    BOOST_TEST(pool.take(1)->capacity() == standard);
}

BOOST_AUTO_TEST_CASE(aLargeBlockServesAgainWhereItIsNotMuchTooLarge) {
    BufferPool pool;
    const char* used = pool.take(4 * standard)->bytes();
    BOOST_TEST(pool.take(4 * standard + 1)->capacity() == 4 * standard + 1);
    BOOST_TEST(pool.take(standard + 1)->capacity() == standard + 1);
    const BlockRef again = pool.take(2 * standard);
    BOOST_TEST(static_cast<const void*>(again->bytes()) == static_cast<const void*>(used));
    BOOST_TEST(!pool.isEmpty());
    pool.trim();
    BOOST_TEST(pool.isEmpty());
}

BOOST_AUTO_TEST_CASE(largeBlocksAreKeptUpToALimit) {
    BufferPool pool;
    const std::size_t kept = 512 * standard;
    { const BlockRef tooMuch = pool.take(kept + 1); }
    BOOST_TEST(pool.isEmpty());
    { const BlockRef all = pool.take(kept); }
    BOOST_TEST(!pool.isEmpty());
    const char* used = pool.take(kept)->bytes();
    { const BlockRef noMore = pool.take(standard + 1); }
    const BlockRef again = pool.take(kept);
    BOOST_TEST(static_cast<const void*>(again->bytes()) == static_cast<const void*>(used));
    BOOST_TEST(pool.isEmpty());
}

BOOST_AUTO_TEST_CASE(aBlockLivesAsLongAsAnyReferenceToIt) {
    BufferPool pool;
    BlockRef first = pool.take(1);
    first->bytes()[0] = 'k';
    BlockRef second = first;
    BlockRef third = std::move(first);
    second = {};
    BOOST_TEST(!third.isShared());
    BOOST_TEST(third->bytes()[0] == 'k');
    BOOST_TEST(!static_cast<bool>(second));
    // Still in use, so the pool must not hand it out.
    BOOST_TEST(static_cast<const void*>(pool.take(1)->bytes()) !=
               static_cast<const void*>(third->bytes()));
}

BOOST_AUTO_TEST_CASE(whatASendQueueLetsGoIsKeptUntilThePoolIsTrimmed) {
    BufferPool pool;
    BOOST_TEST(pool.isEmpty());
    Account account;
    SendQueue sendQueue(pool, account);
    sendQueue.appendCopy("x");
    BOOST_TEST(pool.isEmpty());
    sendQueue.consume(1);
    BOOST_TEST(!pool.isEmpty());
    sendQueue.appendCopy("y");
    BOOST_TEST(pool.isEmpty());
    sendQueue.clear();
    pool.trim();
    BOOST_TEST(pool.isEmpty());
}

BOOST_AUTO_TEST_CASE(aTrimmedPoolServesOn) {
    BufferPool pool;
    {
        std::vector<BlockRef> burst;
        for (int i = 0; i < 2000; ++i) {
            burst.push_back(pool.take(1));
        }
    }
    pool.trim();
    const BlockRef block = pool.take(100);
    block->bytes()[99] = 'x';
    BOOST_TEST(block->capacity() == standard);
}
