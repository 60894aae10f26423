// Frames out of a stream of bytes that reads cut anywhere: what the bytes received so far
// begin with, and how much of a large frame is missing. No I/O and no memory.
//
// Small frames are taken from the buffer that was read into; what is left of one at the end
// stays there until the rest has arrived. A large frame gets memory of its own as soon as
// its length is known, and the reads that follow put its bytes straight into that. Whose
// memory it is, and from which size on a frame is large, is for the owner to decide: the
// library reads a payload into the string that its caller will free, the broker a whole
// frame into a block that it will send.
#ifndef KAVRI_WIRE_FRAME_ASSEMBLER_H
#define KAVRI_WIRE_FRAME_ASSEMBLER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/assert.h"
#include "wire/frame.h"

namespace kavri::wire {

// The frame with which the received bytes begin.
struct FirstFrame {
    enum class State : std::uint8_t {
        headerIncomplete,  // nothing is known of it
        incomplete,        // its length is known
        complete,          // all of its bytes are there
        malformed,         // it is none, and nothing behind it can be read
    };
    State state = State::headerIncomplete;
    FrameError error{};          // of a malformed one
    std::size_t frameBytes = 0;  // of one whose length is known
};

inline FirstFrame firstFrame(const char* bytes, std::size_t count, std::size_t payloadLimitBytes) {
    using State = FirstFrame::State;
    if (count < headerBytes) {
        return {};
    }
    const Measured measured = measure(bytes, payloadLimitBytes);
    if (measured.error) {
        return {State::malformed, *measured.error, 0};
    }
    return {count < measured.frameBytes ? State::incomplete : State::complete, FrameError{},
            measured.frameBytes};
}

// How far a large frame, or the large part of one, has arrived in memory of its own.
class LargeFrame {
  public:
    // Behind it, a read takes no more than this into the common buffer: the next frame may
    // be large too, and is to have its own memory from its beginning.
    static constexpr std::size_t readBehindBytes = 512;

    // The first `receivedBytes` are there already.
    void begin(std::size_t bytes, std::size_t receivedBytes) {
        KAVRI_ASSERT(!isBegun(), "one large frame arrives at a time");
        KAVRI_ASSERT(receivedBytes <= bytes && bytes <= UINT32_MAX, "a part is no larger");
        bytes_ = static_cast<std::uint32_t>(bytes);
        received_ = static_cast<std::uint32_t>(receivedBytes);
    }
    void end() { bytes_ = received_ = 0; }

    bool isBegun() const { return bytes_ != 0; }
    bool isComplete() const { return received_ == bytes_; }
    std::size_t bytes() const { return bytes_; }
    std::size_t receivedBytes() const { return received_; }
    std::size_t missingBytes() const { return bytes_ - received_; }

    // After a read of `count` bytes, whose first went to where some are missing: how many of
    // them lie behind the frame, in the common buffer.
    std::size_t add(std::size_t count) {
        const std::size_t taken = std::min(count, missingBytes());
        received_ += static_cast<std::uint32_t>(taken);
        return count - taken;
    }

  private:
    std::uint32_t bytes_ = 0;
    std::uint32_t received_ = 0;
};

}  // namespace kavri::wire

#endif
