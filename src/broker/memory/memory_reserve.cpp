// The reserve for when memory is out; see memory_reserve.h.
#include "broker/memory/memory_reserve.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "wire/limits.h"

namespace kavri::broker {

namespace {

constexpr std::size_t reserveBytes = 1 * wire::mebibyte;
// Blocks from this size on go back to the system as soon as they are freed, and
// not only when nothing above them is in use.
constexpr int mappedBlockBytes = 256 * static_cast<int>(wire::kibibyte);

std::atomic<void*> reserve{nullptr};

void giveUpReserve() {
    void* const given = reserve.exchange(nullptr);
    if (given == nullptr) {
        throw std::bad_alloc();
    }
    std::free(given);
}

}  // namespace

MemoryReserve::MemoryReserve() {
    // NOLINTBEGIN(concurrency-mt-unsafe): unsafe beside another mallopt only; there is none.
    ::mallopt(M_MMAP_THRESHOLD, mappedBlockBytes);
    // The log's thread allocates next to nothing. An arena of its own would reserve 64 MiB
    // of addresses for it, at a time that nobody can foresee.
    ::mallopt(M_ARENA_MAX, 1);
    // NOLINTEND(concurrency-mt-unsafe)
    restore();
    std::set_new_handler(giveUpReserve);
}

MemoryReserve::~MemoryReserve() {
    std::set_new_handler(nullptr);
    std::free(reserve.exchange(nullptr));
}

void MemoryReserve::restore() {
    if (!isThere()) {
        reserve = std::malloc(reserveBytes);
    }
}

bool MemoryReserve::isThere() const {
    return reserve != nullptr;
}

}  // namespace kavri::broker
