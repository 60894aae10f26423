// Rows of frames; see frame_row.h.
#include "broker/link/frame_row.h"

#include <algorithm>

#include "base/assert.h"
#include "wire/frame.h"

namespace kavri::broker {

namespace {

void copyBytes(std::span<const iovec> pieces, std::size_t most, std::string& bytes) {
    bytes.clear();
    for (const iovec& piece : pieces) {
        const std::size_t count = std::min(piece.iov_len, most - bytes.size());
        bytes.append(static_cast<const char*>(piece.iov_base), count);
    }
}

}  // namespace

std::size_t firstFrameBytes(std::string_view bytes) {
    std::size_t length = 0;
    if (bytes.size() < wire::headerBytes) {
        return 0;
    }
    for (std::size_t i = 4; i-- > 0;) {
        length = length << 8U | static_cast<unsigned char>(bytes[i]);
    }
    return length < wire::headerBytes ? 0 : length;
}

std::size_t wholeFrameBytes(std::string_view bytes, std::size_t most) {
    std::size_t whole = 0;
    while (true) {
        const std::size_t next = firstFrameBytes(bytes.substr(whole));
        if (next == 0 || next > std::min(bytes.size(), most) - whole) {
            return whole;
        }
        whole += next;
    }
}

void copyFrames(std::span<const iovec> pieces, std::size_t most, std::string& row) {
    copyBytes(pieces, std::max(most, wire::headerBytes), row);
    std::size_t whole = wholeFrameBytes(row, most);
    if (whole == 0 && !row.empty()) {
        whole = firstFrameBytes(row);
        copyBytes(pieces, whole, row);
        KAVRI_ASSERT(row.size() == whole, "a send queue has whole frames");
    }
    row.resize(whole);
}

}  // namespace kavri::broker
