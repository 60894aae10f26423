// Frames one behind the other, as messages between brokers carry them: each whole.
#ifndef KAVRI_BROKER_LINK_FRAME_ROW_H
#define KAVRI_BROKER_LINK_FRAME_ROW_H

#include <sys/uio.h>

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace kavri::broker {

// The bytes of the first frame; 0 where not even its length is there, or it is none.
std::size_t firstFrameBytes(std::string_view bytes);

// How many bytes of the beginning are whole frames, of at most `most` together.
std::size_t wholeFrameBytes(std::string_view bytes, std::size_t most);

inline bool isWholeFrames(std::string_view bytes) {
    return wholeFrameBytes(bytes, bytes.size()) == bytes.size();
}

// Copies whole frames from the front of a send queue: up to `most` bytes, or the first
// alone where that is longer. `row` is emptied before.
void copyFrames(std::span<const iovec> pieces, std::size_t most, std::string& row);

}  // namespace kavri::broker

#endif
