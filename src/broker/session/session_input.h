// What a session sent and could not be handled yet: a large frame that is coming in,
// then bytes that wait for the rest of their frame, or for another session.
#ifndef KAVRI_BROKER_SESSION_SESSION_INPUT_H
#define KAVRI_BROKER_SESSION_SESSION_INPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "base/assert.h"
#include "broker/memory/account.h"
#include "broker/memory/buffer.h"
#include "broker/session/drain_meter.h"
#include "wire/frame_assembler.h"

namespace kavri::broker {

struct SessionInput {
    explicit SessionInput(Account& account) : charge(account, 0) {}

    BlockRef large;
    BlockRef backlog;
    wire::LargeFrame largeFrame;  // how much of it is in `large`
    std::uint32_t backlogOffset = 0;
    std::uint32_t backlogBytes = 0;
    std::uint32_t typicalFrameBytes = 64;  // of the latest input
    bool frameDeadlineIsSet = false;
    // When the frame began that is still incomplete; zero when that is not known yet.
    Clock::time_point frameBegan;
    Charge charge;  // for both blocks

    bool hasPartOfFrame() const { return static_cast<bool>(large) || static_cast<bool>(backlog); }
    std::size_t bytesOfPart() const { return large ? largeFrame.receivedBytes() : backlogBytes; }
    char* backlogBegin() const { return backlog->bytes() + backlogOffset; }
    // Both end the charge; what is in the backlog is the caller's from then on.
    void dropLarge() {
        KAVRI_ASSERT(large, "a large frame is dropped once");
        charge.shrink(large->capacity());
        large = {};
        largeFrame.end();
    }
    BlockRef takeBacklog() {
        KAVRI_ASSERT(backlog, "a backlog is taken once");
        charge.shrink(backlog->capacity());
        return std::move(backlog);
    }
};

}  // namespace kavri::broker

#endif
