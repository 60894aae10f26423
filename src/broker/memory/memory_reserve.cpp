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
    // NOLINTNEXTLINE(concurrency-mt-unsafe): unsafe beside another mallopt only; there is none.
    ::mallopt(M_MMAP_THRESHOLD, mappedBlockBytes);
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
