// What a connection has received, as frames: the bytes go in as reads bring them, frames
// come out one by one. No I/O.
//
// The payload of a large frame is read into memory of its own, which becomes the string that
// the caller receives. Everything else passes through one buffer. Not thread-safe: the thread
// whose turn it is to read uses it, and between turns the holder of the endpoint's lock.
#ifndef KAVRI_CORE_CONNECTION_FRAME_READER_H
#define KAVRI_CORE_CONNECTION_FRAME_READER_H

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "core/message.h"
#include "wire/frame.h"
#include "wire/frame_assembler.h"
#include "wire/limits.h"

namespace kavri::core {

class FrameReader {
  public:
    // As negotiated; before that, the default.
    void setPayloadLimit(std::size_t bytes) { payloadLimitBytes_ = bytes; }
    std::size_t payloadLimitBytes() const { return payloadLimitBytes_; }

    // Where the next read puts its bytes. There is room for as much as one read is to bring,
    // and for the whole of the frame that has begun.
    struct Room {
        std::array<iovec, 2> pieces;
        int count;
    };
    Room room();
    // A read into that room brought so many bytes.
    void received(std::size_t count);

    // The first frame that has arrived as a whole, the same one until it is dropped; valid
    // until the next read. After malformed bytes there is none.
    std::optional<wire::Frame> nextFrame();
    // The memory of that frame's payload, where it has some of its own; may be moved from.
    Text& largePayload() { return largePayload_; }
    void dropFrame();

    bool isMalformed() const { return malformed_; }

  private:
    std::size_t wantedBytes() const;
    void makeRoom();
    void beginLarge(wire::Extent extent);
    std::optional<wire::Frame> decoded(const char* bytes, const char* payload = nullptr);

    std::size_t payloadLimitBytes_ = wire::Limits{}.payloadBytes;

    // Received and not dropped yet: [begin, end).
    std::unique_ptr<char[]> input_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t frameBytes_ = 0;  // of the next frame, once it is decoded; 0 for a large one
    bool malformed_ = false;

    wire::LargeFrame large_;  // the payload alone
    std::string largeHead_;   // what goes before it
    Text largePayload_;
};

}  // namespace kavri::core

#endif
