// The flow of frames in a channel; see channel.h.
#include "broker/link/channel.h"

#include <algorithm>
#include <utility>

#include "broker/link/frame_row.h"

namespace kavri::broker {

void Channel::open(const BrokerIdentity& broker, std::uint64_t theirId) {
    isOpen_ = true;
    broker_ = broker;
    theirId_ = theirId;
}

// What a closing session says last may go beyond the window: nothing follows it.
std::size_t Channel::mostToSend() {
    if (!isOpen_) {
        return 0;
    }
    if (!host_.hasRoom()) {
        if (!std::exchange(waitsForRoom_, true)) {
            host_.waitForRoom(*this);
        }
        return 0;
    }
    return session_->isClosing ? host_.messageBytes()
                               : windowBytes - std::min(windowBytes, bytesInTransit());
}

void Channel::hasRoomAgain() {
    waitsForRoom_ = false;
    host_.writeSoon(*this);
}

std::size_t Channel::send(std::span<const iovec> pieces) {
    const std::size_t most = mostToSend();
    if (most == 0) {
        return 0;
    }
    copyFrames(pieces, most, row_);
    if (row_.size() > most && bytesInTransit() >= windowBytes / 4) {
        return 0;
    }
    for (std::string_view rest = row_; !rest.empty();) {
        const std::size_t fitting = wholeFrameBytes(rest, host_.messageBytes());
        const std::string_view content =
            rest.substr(0, fitting > 0 ? fitting : firstFrameBytes(rest));
        sent_ += content.size();
        host_.send(*this, EnvelopeKind::frames, content);
        rest.remove_prefix(content.size());
    }
    return row_.size();
}

void Channel::takeCredit(std::uint64_t handledBytes) {
    taken_ = std::clamp(handledBytes, taken_, sent_);
    if (!session_->sendQueue.empty()) {
        host_.writeSoon(*this);
    }
}

bool Channel::takeFrames(std::string_view content) {
    if (!isWholeFrames(content) || inbox_->bytes() > windowBytes) {
        return false;
    }
    if (isInputWanted_ && inbox_->empty()) {
        input_.assign(content);
        handle(input_);
    } else {
        inbox_->add(content);
    }
    return true;
}

void Channel::handleInput() {
    while (isInputWanted_ && !inbox_->empty() && !session_->isClosing) {
        std::string content = inbox_->take();
        handle(content);
    }
}

void Channel::handle(std::string& frames) {
    host_.handleFrames(*this, frames.data(), frames.size());
    handled_ += frames.size();
    if (handled_ - saidHandled_ >= windowBytes / 4) {
        host_.send(*this, EnvelopeKind::credit, {});
    }
}

void Channel::watchInput(bool isWanted) {
    const bool wasWanted = std::exchange(isInputWanted_, isWanted);
    if (isWanted && !wasWanted && !inbox_->empty()) {
        host_.handleInputSoon(*this);
    }
}

}  // namespace kavri::broker
