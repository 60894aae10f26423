// The bytes queued for one peer; see send_queue.h.
#include "broker/memory/send_queue.h"

#include <algorithm>
#include <cstring>

#include "base/assert.h"

namespace kavri::broker {

void SendQueue::append(const wire::Frame& frame) {
    const wire::Header header = wire::encodeHeader(frame);
    appendCopy({header.data(), header.size()});
    for (const std::string_view& field : frame.fields) {
        appendCopy(field);
    }
}

void SendQueue::appendCopy(std::string_view bytes) {
    while (!bytes.empty()) {
        const bool lastHasRoom = !slices_.empty() && !slices_.back().block.isShared() &&
                                 slices_.back().end < slices_.back().block->capacity();
        if (!lastHasRoom) {
            pool_.append(slices_, {pool_.take(BufferPool::standardBytes)});
        }
        Slice& slice = slices_.back();
        const std::size_t part = std::min(bytes.size(), slice.block->capacity() - slice.end);
        std::memcpy(slice.block->bytes() + slice.end, bytes.data(), part);
        slice.end += part;
        charge_.grow(part);
        bytes.remove_prefix(part);
    }
}

void SendQueue::appendShared(const BlockRef& block, std::size_t length) {
    pool_.append(slices_, {block, 0, length});
    charge_.grow(length);
}

std::size_t SendQueue::gather(iovec* pieces, std::size_t most) const {
    std::size_t count = 0;
    for (const Slice& slice : slices_) {
        if (count == most) {
            break;
        }
        pieces[count++] = {slice.block->bytes() + slice.begin, slice.end - slice.begin};
    }
    return count;
}

void SendQueue::consume(std::size_t bytes) {
    KAVRI_ASSERT(bytes <= this->bytes(), "no more is sent than was queued");
    charge_.shrink(bytes);
    while (bytes > 0) {
        Slice& first = slices_.front();
        const std::size_t part = std::min(bytes, first.end - first.begin);
        first.begin += part;
        bytes -= part;
        if (first.begin == first.end) {
            pool_.popFront(slices_);
        }
    }
}

void SendQueue::clear() {
    while (!slices_.empty()) {
        pool_.popFront(slices_);
    }
    charge_.shrink(charge_.bytes());
}

}  // namespace kavri::broker
