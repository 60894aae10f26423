// The reserve for when memory is out, and blocks that cannot be had.
#define BOOST_TEST_MODULE memoryReserve

#include "broker/memory/memory_reserve.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <new>

#include "broker/memory/buffer.h"

using kavri::broker::BlockRef;
using kavri::broker::BufferPool;
using kavri::broker::MemoryReserve;

BOOST_AUTO_TEST_CASE(itIsGivenUpOnceAndThenMemoryIsOut) {
    MemoryReserve reserve;
    BOOST_REQUIRE(reserve.isThere());
    const std::new_handler handler = std::get_new_handler();
    BOOST_REQUIRE(handler != nullptr);
    handler();
    BOOST_TEST(!reserve.isThere());
    BOOST_CHECK_THROW(handler(), std::bad_alloc);
    reserve.restore();
    BOOST_TEST(reserve.isThere());
    handler();
}

BOOST_AUTO_TEST_CASE(itEndsWithItsOwner) {
    { const MemoryReserve reserve; }
    BOOST_TEST((std::get_new_handler() == nullptr));
}

// The sanitizers end the program themselves when memory is out.
#if !defined(KAVRI_SANITIZED)
BOOST_AUTO_TEST_CASE(largeBlocksLeaveTheReserveToSmallOnes) {
    const pid_t child = ::fork();
    if (child == 0) {
        MemoryReserve reserve;
        BufferPool pool;
        const rlimit limit{256 << 20, 256 << 20};
        ::setrlimit(RLIMIT_AS, &limit);
        std::vector<BlockRef> blocks;
        blocks.reserve(100'000);
        bool thrown = false;
        try {
            while (true) {
                blocks.push_back(pool.take(1 << 20));
            }
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
        const bool stillThere = reserve.isThere();
        try {
            while (reserve.isThere()) {
                blocks.push_back(pool.take(1));
            }
        } catch (const std::bad_alloc&) {
            ::_exit(2);
        }
        ::_exit(thrown && stillThere ? 0 : 1);
    }
    int status = 0;
    BOOST_REQUIRE(::waitpid(child, &status, 0) == child);
    BOOST_TEST(status == 0);
}
#endif
