// Allocations of this process that fail on request, and how many of its blocks are in use.
//
// malloc, calloc, realloc and free are defined here in place of the C library's, so that a
// failure reaches the library under test, the C++ library and the C library alike. Include
// it in one file of a program only, and in none that is built with a sanitizer, which has
// an allocator of its own.
#ifndef KAVRI_TESTS_SUPPORT_FAILING_ALLOCATIONS_H
#define KAVRI_TESTS_SUPPORT_FAILING_ALLOCATIONS_H

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <limits>

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own names for its allocator.
extern "C" {
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* block, std::size_t bytes);
void __libc_free(void* block);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace kavri::tests {

// Which allocations of one thread, or several, fail.
class FailingAllocations {
  public:
    static constexpr long all = std::numeric_limits<long>::max();

    // From now on: the `first`, counted from 1, and those behind it, `count` in all.
    void begin(long first, long count) {
        made_ = 0;
        failed_ = 0;
        last_ = count == all ? all : first + count - 1;
        first_ = first;
    }
    // How many failed.
    long end() {
        first_ = 0;
        return failed_;
    }
    long failed() const { return failed_; }

    // Whether the next one is to fail.
    bool fails() {
        const long first = first_;
        if (first == 0) {
            return false;
        }
        const long number = ++made_;
        const bool isHit = number >= first && number <= last_;
        failed_ += isHit ? 1 : 0;
        return isHit;
    }

  private:
    std::atomic<long> first_{0};  // 0: none
    std::atomic<long> last_{0};
    std::atomic<long> made_{0};
    std::atomic<long> failed_{0};
};

// Of the test's own thread, and of all others together: the library's.
inline FailingAllocations failingHere;
inline FailingAllocations failingElsewhere;
inline thread_local bool isTestThread = false;
inline std::atomic<long> blocksInUse{0};

inline bool nextAllocationFails() {
    const bool fails = (isTestThread ? failingHere : failingElsewhere).fails();
    if (fails) {
        errno = ENOMEM;
    }
    return fails;
}

inline void* counted(void* block) {
    blocksInUse += block != nullptr ? 1 : 0;
    return block;
}

}  // namespace kavri::tests

#pragma GCC visibility push(default)  // the shared libraries are to find them
extern "C" {
void* malloc(std::size_t bytes) {
    return kavri::tests::nextAllocationFails() ? nullptr
                                               : kavri::tests::counted(__libc_malloc(bytes));
}
void* calloc(std::size_t count, std::size_t bytes) {
    return kavri::tests::nextAllocationFails() ? nullptr
                                               : kavri::tests::counted(__libc_calloc(count, bytes));
}
void* realloc(void* block, std::size_t bytes) {
    if (block == nullptr) {
        return malloc(bytes);
    }
    return kavri::tests::nextAllocationFails() ? nullptr : __libc_realloc(block, bytes);
}
void free(void* block) {
    kavri::tests::blocksInUse -= block != nullptr ? 1 : 0;
    __libc_free(block);
}
}
#pragma GCC visibility pop

#endif
