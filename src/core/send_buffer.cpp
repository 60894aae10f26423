// Encoding into the buffer, and its bytes as pieces of a write; see send_buffer.h.
#include "core/send_buffer.h"

#include <algorithm>
#include <numeric>
#include <span>

namespace kavri::core {

using interfaces::Frame;

bool SendBuffer::append(const Frame& frame) {
    const std::size_t frameBytes = interfaces::encodedBytes(frame);
    if (frameBytes >= interfaces::largeFrameBytes) {
        const interfaces::Header header = interfaces::encodeHeader(frame);
        bytes_.append(header.data(), header.size());
        return true;
    }
    if (bytes_.capacity() < bytes_.size() + frameBytes) {
        bytes_.reserve(std::max(2 * bytes_.capacity(), bytes_.size() + frameBytes));
    }
    interfaces::appendEncoded(frame, bytes_);
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
