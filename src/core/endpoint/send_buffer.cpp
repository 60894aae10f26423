// Encoding into the buffer, and its bytes as pieces of a write; see send_buffer.h.
#include "core/endpoint/send_buffer.h"

#include <algorithm>
#include <numeric>

#include "base/assert.h"

namespace kavri::core {

using wire::Frame;

namespace {

bool isWithinLimits(const Frame& frame, std::size_t payloadLimitBytes) {
    return std::all_of(
               frame.fields.begin(), frame.fields.end() - 1,
               [](std::string_view field) { return field.size() <= wire::fieldLimitBytes; }) &&
           frame.fields.back().size() <= payloadLimitBytes;
}

}  // namespace

SendBuffer::Accepted SendBuffer::accept(std::span<Frame> frames, PendingRequests* pending,
                                        std::size_t payloadLimitBytes) {
    KAVRI_ASSERT(!isWorthAWrite(), "what is worth a write is written before more is accepted");
    const std::size_t earlierBytes = size();
    Accepted accepted;
    try {
        for (Frame& frame : frames) {
            if (isWorthAWrite() || accepted.large != nullptr ||
                !isWithinLimits(frame, payloadLimitBytes)) {
                break;
            }
            if (pending != nullptr) {
                frame.token = pending->nextToken() + accepted.count;
            }
            accepted.large = append(frame) ? &frame : nullptr;
            ++accepted.count;
        }
        if (pending != nullptr) {
            pending->add(frames.first(accepted.count));
        }
    } catch (...) {
        truncate(earlierBytes);
        throw;
    }
    return accepted;
}

bool SendBuffer::append(const Frame& frame) {
    const std::size_t frameBytes = wire::encodedBytes(frame);
    if (frameBytes >= wire::largeFrameBytes) {
        const wire::Header header = wire::encodeHeader(frame);
        bytes_.append(header.data(), header.size());
        return true;
    }
    if (bytes_.capacity() < bytes_.size() + frameBytes) {
        bytes_.reserve(std::max(2 * bytes_.capacity(), bytes_.size() + frameBytes));
    }
    wire::appendEncoded(frame, bytes_);
    return false;
}

void SendBuffer::prepare(Write& write, const Frame* large) {
    write.storage[0] = {bytes_.data(), bytes_.size()};
    write.total = bytes_.size();
    if (large == nullptr) {
        return;
    }
    for (const std::string_view& field : large->fields) {
        write.storage[write.count++] = {const_cast<char*>(field.data()), field.size()};
        write.total += field.size();
    }
}

std::size_t SendBuffer::Write::written() const {
    const std::span<const iovec> left(pieces, count);
    return std::accumulate(
        left.begin(), left.end(), total,
        [](std::size_t bytes, const iovec& piece) { return bytes - piece.iov_len; });
}

}  // namespace kavri::core
