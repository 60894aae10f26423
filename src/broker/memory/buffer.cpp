// Blocks of bytes and their pool; see buffer.h.
#include "broker/memory/buffer.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "base/assert.h"

namespace kavri::broker {

void BlockRef::release() {
    KAVRI_ASSERT(block_ == nullptr || block_->references_ > 0, "each reference is released once");
    if (block_ != nullptr && --block_->references_ == 0) {
        block_->pool_->giveBack(block_);
    }
}

// With room for all that is kept, so that giving a block back never allocates.
BufferPool::BufferPool() {
    free_.reserve(keptBlocks);
    freeLarge_.reserve(keptLargeBytes / standardBytes);
}

BufferPool::~BufferPool() {
    freeAll();
}

BlockRef BufferPool::take(std::size_t bytes) {
    if (bytes <= standardBytes && !free_.empty()) {
        Block* block = free_.back();
        free_.pop_back();
        return BlockRef(block);
    }
    if (Block* block = bytes > standardBytes ? takeLarge(bytes) : nullptr) {
        return BlockRef(block);
    }
    const std::size_t capacity = std::max(bytes, standardBytes);
    void* memory = std::malloc(sizeof(Block) + capacity);
    if (memory == nullptr) {
        memory = takeLastMemory(sizeof(Block) + capacity);
    }
    return BlockRef(new (memory) Block(*this, capacity));
}

// Frees the blocks that are kept for reuse, then uses the memory reserve, which is for
// small blocks only: for the goodbye with the reason.
void* BufferPool::takeLastMemory(std::size_t bytes) {
    freeAll();
    void* memory = std::malloc(bytes);
    while (memory == nullptr) {
        const std::new_handler giveUpReserve = std::get_new_handler();
        if (giveUpReserve == nullptr || bytes > sizeof(Block) + standardBytes) {
            throw std::bad_alloc();
        }
        giveUpReserve();
        memory = std::malloc(bytes);
    }
    return memory;
}

// One that is not much too large; null where there is none.
Block* BufferPool::takeLarge(std::size_t bytes) {
    const auto found = std::ranges::find_if(freeLarge_, [bytes](const Block* block) {
        return block->capacity() >= bytes && block->capacity() / 2 <= bytes;
    });
    if (found == freeLarge_.end()) {
        return nullptr;
    }
    Block* const block = std::exchange(*found, freeLarge_.back());
    freeLarge_.pop_back();
    freeLargeBytes_ -= block->capacity();
    return block;
}

void BufferPool::append(std::list<Slice>& slices, Slice slice) {
    if (freeSlices_.empty()) {
        slices.push_back(std::move(slice));
    } else {
        freeSlices_.front() = std::move(slice);
        slices.splice(slices.end(), freeSlices_, freeSlices_.begin());
    }
}

void BufferPool::popFront(std::list<Slice>& slices) {
    slices.front().block = {};
    freeSlices_.splice(freeSlices_.begin(), slices, slices.begin());
}

void BufferPool::trim() {
    if (!isEmpty()) {
        freeAll();
        ::malloc_trim(0);
    }
}

void BufferPool::freeAll() {
    for (std::vector<Block*>* blocks : {&free_, &freeLarge_}) {
        for (Block* block : *blocks) {
            std::free(block);
        }
        blocks->clear();
    }
    freeLargeBytes_ = 0;
    freeSlices_.clear();
}

void BufferPool::giveBack(Block* block) {
    if (block->capacity() == standardBytes && free_.size() < keptBlocks) {
        free_.push_back(block);
    } else if (block->capacity() > standardBytes &&
               freeLargeBytes_ + block->capacity() <= keptLargeBytes) {
        freeLarge_.push_back(block);
        freeLargeBytes_ += block->capacity();
    } else {
        std::free(block);
    }
}

}  // namespace kavri::broker
