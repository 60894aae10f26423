// Blocks of bytes and their pool; see buffer.h.
#include "broker/buffer.h"

#include <algorithm>
#include <new>

namespace kavri::broker {

void BlockRef::release() {
    if (block_ != nullptr && --block_->references_ == 0) {
        block_->pool_->giveBack(block_);
    }
}

BufferPool::~BufferPool() {
    trim();
}

BlockRef BufferPool::take(std::size_t bytes) {
    if (bytes <= standardBytes && !free_.empty()) {
        Block* block = free_.back();
        free_.pop_back();
        return BlockRef(block);
    }
    const std::size_t capacity = std::max(bytes, standardBytes);
    return BlockRef(new (::operator new(sizeof(Block) + capacity)) Block(*this, capacity));
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
    for (Block* block : free_) {
        ::operator delete(block);
    }
    free_.clear();
    freeSlices_.clear();
}

void BufferPool::giveBack(Block* block) {
    if (block->capacity() == standardBytes && free_.size() < keptBlocks) {
        free_.push_back(block);
    } else {
        ::operator delete(block);
    }
}

}  // namespace kavri::broker
