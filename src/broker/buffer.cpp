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
    if (Block* block = bytes > standardBytes ? takeLarge(bytes) : nullptr) {
        return BlockRef(block);
    }
    const std::size_t capacity = std::max(bytes, standardBytes);
    return BlockRef(new (::operator new(sizeof(Block) + capacity)) Block(*this, capacity));
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
    for (std::vector<Block*>* blocks : {&free_, &freeLarge_}) {
        for (Block* block : *blocks) {
            ::operator delete(block);
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
        ::operator delete(block);
    }
}

}  // namespace kavri::broker
