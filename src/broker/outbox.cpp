// The queue of what waits to be written; see outbox.h.
#include "broker/outbox.h"

#include <algorithm>
#include <cstring>

namespace kavri::broker {

void Outbox::append(const interfaces::Frame& frame) {
    const interfaces::Header header = interfaces::encodeHeader(frame);
    appendCopy({header.data(), header.size()});
    for (const std::string_view& field : frame.fields) {
        appendCopy(field);
    }
}

void Outbox::appendCopy(std::string_view bytes) {
    account(bytes.size());
    while (!bytes.empty()) {
        const bool lastHasRoom =
            last_ != nullptr && !last_->block.isShared() && last_->end < last_->block->capacity();
        Slice& slice = lastHasRoom ? *last_ : push(pool_.take(BufferPool::standardBytes));
        const std::size_t part = std::min(bytes.size(), slice.block->capacity() - slice.end);
        std::memcpy(slice.block->bytes() + slice.end, bytes.data(), part);
        slice.end += part;
        bytes.remove_prefix(part);
    }
}

void Outbox::appendShared(const BlockRef& block, std::size_t length) {
    account(length);
    push(block).end = length;
}

std::size_t Outbox::gather(iovec* pieces, std::size_t most) const {
    std::size_t count = 0;
    for (const Slice* slice = first_.get(); slice != nullptr && count < most;
         slice = slice->next.get()) {
        pieces[count++] = {slice->block->bytes() + slice->begin, slice->end - slice->begin};
    }
    return count;
}

void Outbox::consume(std::size_t bytes) {
    bytes_ -= bytes;
    userBytes_ -= bytes;
    while (bytes > 0) {
        const std::size_t part = std::min(bytes, first_->end - first_->begin);
        first_->begin += part;
        bytes -= part;
        if (first_->begin == first_->end) {
            popFront();
        }
    }
}

// One by one: a chain that frees itself would do so recursively.
void Outbox::clear() {
    while (first_ != nullptr) {
        popFront();
    }
    userBytes_ -= bytes_;
    bytes_ = 0;
}

Outbox::Slice& Outbox::push(BlockRef block) {
    auto slice = std::make_unique<Slice>();
    slice->block = std::move(block);
    Slice& added = *slice;
    (last_ == nullptr ? first_ : last_->next) = std::move(slice);
    last_ = &added;
    return added;
}

void Outbox::popFront() {
    first_ = std::move(first_->next);
    if (first_ == nullptr) {
        last_ = nullptr;
    }
}

}  // namespace kavri::broker
