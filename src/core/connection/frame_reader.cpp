// Room for reads, and frames from what they brought; see frame_reader.h.
#include "core/connection/frame_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/assert.h"

namespace kavri::core {

using wire::FirstFrame;
using wire::Frame;
using wire::LargeFrame;

namespace {

constexpr std::size_t readBytes = 64 * wire::kibibyte;

}  // namespace

FrameReader::Room FrameReader::room() {
    makeRoom();
    KAVRI_ASSERT(end_ < capacity_, "frames that have arrived are handled before the next read");
    char* const behind = input_.get() + end_;
    if (!large_.isBegun()) {
        return {{{{behind, capacity_ - end_}}}, 1};
    }
    return {{{{largePayload_.get() + large_.receivedBytes(), large_.missingBytes()},
              {behind, std::min(capacity_ - end_, LargeFrame::readBehindBytes)}}},
            2};
}

void FrameReader::received(std::size_t count) {
    end_ += large_.add(count);
    KAVRI_ASSERT(end_ <= capacity_, "a read stays within the room it was given");
}

// Of a frame whose payload has its own memory, only the head must fit.
std::size_t FrameReader::wantedBytes() const {
    const char* const bytes = input_.get() + begin_;
    const FirstFrame first = wire::firstFrame(bytes, end_ - begin_, payloadLimitBytes_);
    if (first.state != FirstFrame::State::incomplete) {
        return readBytes;
    }
    const wire::Extent extent = wire::extentOf(bytes);
    const bool isLarge = extent.payloadBytes >= wire::largeFrameBytes;
    return std::max(readBytes, isLarge ? extent.headBytes : first.frameBytes);
}

void FrameReader::makeRoom() {
    const std::size_t held = end_ - begin_;
    const std::size_t wanted = wantedBytes();
    if (wanted > capacity_) {
        auto larger = std::make_unique_for_overwrite<char[]>(wanted);
        std::copy_n(input_.get() + begin_, held, larger.get());
        input_ = std::move(larger);
        capacity_ = wanted;
    } else if (held == 0 || begin_ + wanted > capacity_ || end_ == capacity_) {
        std::memmove(input_.get(), input_.get() + begin_, held);
    } else {
        return;
    }
    begin_ = 0;
    end_ = held;
}

std::optional<Frame> FrameReader::nextFrame() {
    if (malformed_) {
        return std::nullopt;
    }
    if (large_.isBegun()) {
        return large_.isComplete() ? decoded(largeHead_.data(), largePayload_.get()) : std::nullopt;
    }
    const char* const bytes = input_.get() + begin_;
    const std::size_t held = end_ - begin_;
    const FirstFrame first = wire::firstFrame(bytes, held, payloadLimitBytes_);
    switch (first.state) {
        case FirstFrame::State::complete:
            frameBytes_ = first.frameBytes;
            return decoded(bytes);
        case FirstFrame::State::incomplete:
            if (const wire::Extent extent = wire::extentOf(bytes);
                extent.payloadBytes >= wire::largeFrameBytes && held >= extent.headBytes) {
                beginLarge(extent);
            }
            break;
        case FirstFrame::State::malformed:
            malformed_ = true;
            break;
        case FirstFrame::State::headerIncomplete:
            break;
    }
    return std::nullopt;
}

std::optional<Frame> FrameReader::decoded(const char* bytes, const char* payload) {
    auto frame = wire::decode(bytes, payload);
    malformed_ = !frame;
    return frame;
}

void FrameReader::dropFrame() {
    if (large_.isBegun()) {
        KAVRI_ASSERT(large_.isComplete(), "only a frame that has arrived is dropped");
        large_.end();
        largePayload_ = nullptr;
        return;
    }
    begin_ += std::exchange(frameBytes_, 0);
    KAVRI_ASSERT(begin_ <= end_, "only what has arrived is dropped");
}

void FrameReader::beginLarge(wire::Extent extent) {
    const char* const bytes = input_.get() + begin_;
    const std::size_t received = end_ - begin_ - extent.headBytes;
    largeHead_.assign(bytes, extent.headBytes);
    largePayload_ = newText(extent.payloadBytes);
    std::memcpy(largePayload_.get(), bytes + extent.headBytes, received);
    large_.begin(extent.payloadBytes, received);
    begin_ = end_;
}

}  // namespace kavri::core
