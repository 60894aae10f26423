// Blocks of bytes for frames in transit, shared by reference count.
//
// Small frames are copied into blocks of standard size, which a pool reuses. A large
// frame is read into a block of its own, which the send queues of its receivers share,
// as they do many small events of one read. Not thread-safe: the counts are plain.
#ifndef KAVRI_BROKER_MEMORY_BUFFER_H
#define KAVRI_BROKER_MEMORY_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <utility>
#include <vector>

#include "wire/limits.h"

namespace kavri::broker {

class BufferPool;

class Block {
  public:
    char* bytes() { return reinterpret_cast<char*>(this + 1); }
    std::size_t capacity() const { return capacity_; }

  private:
    friend class BlockRef;
    friend class BufferPool;
    Block(BufferPool& pool, std::size_t capacity) : pool_(&pool), capacity_(capacity) {}

    BufferPool* pool_;
    std::size_t capacity_;
    std::size_t references_ = 0;
};

// A counted reference; the last one returns the block to its pool.
class BlockRef {
  public:
    BlockRef() = default;
    explicit BlockRef(Block* block) : block_(block) { acquire(); }
    BlockRef(const BlockRef& other) : block_(other.block_) { acquire(); }
    BlockRef(BlockRef&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
    BlockRef& operator=(BlockRef other) noexcept {
        std::swap(block_, other.block_);
        return *this;
    }
    ~BlockRef() { release(); }

    explicit operator bool() const { return block_ != nullptr; }
    Block* operator->() const { return block_; }
    bool isShared() const { return block_->references_ > 1; }

  private:
    void acquire() {
        if (block_ != nullptr) {
            ++block_->references_;
        }
    }
    void release();

    Block* block_ = nullptr;
};

// A part of a block.
struct Slice {
    BlockRef block;
    std::size_t begin = 0;
    std::size_t end = 0;
};

class BufferPool {
  public:
    static constexpr std::size_t standardBytes = wire::largeFrameBytes;

    BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;
    ~BufferPool();

    // A block with room for at least `bytes`. Throws std::bad_alloc.
    BlockRef take(std::size_t bytes);

    // Puts a slice at the end of a list, and takes the first one off.
    void append(std::list<Slice>& slices, Slice slice);
    void popFront(std::list<Slice>& slices);

    // Whether no memory is kept for reuse.
    bool isEmpty() const { return free_.empty() && freeLarge_.empty() && freeSlices_.empty(); }
    // Returns all free memory to the system.
    void trim();

  private:
    friend class BlockRef;
    // Keeps the memory of a burst for the next one, up to 8 MiB.
    static constexpr std::size_t keptBlocks = 512;
    // The same for larger blocks.
    static constexpr std::size_t keptLargeBytes = keptBlocks * standardBytes;

    Block* takeLarge(std::size_t bytes);
    void* takeLastMemory(std::size_t bytes);
    void freeAll();
    void giveBack(Block* block);

    std::vector<Block*> free_;
    std::vector<Block*> freeLarge_;
    std::size_t freeLargeBytes_ = 0;
    std::list<Slice> freeSlices_;
};

}  // namespace kavri::broker

#endif
