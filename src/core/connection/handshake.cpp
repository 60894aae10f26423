// The frames of the first exchange; see handshake.h.
#include "core/connection/handshake.h"

#include "core/connection/frame_status.h"
#include "core/connection/negotiated_limits.h"

namespace kavri::core {

using wire::Field;
using wire::Frame;
using wire::FrameType;
using Io = Connection::Io;

Handshake::Result Handshake::perform(std::string_view role, std::string_view servedCategory) {
    Result result = greet(role);
    if (!result.hasFailed() && !servedCategory.empty()) {
        result = registerFor(servedCategory);
    }
    return result;
}

Handshake::Result Handshake::greet(std::string_view role) {
    Frame hello;
    hello.type = FrameType::hello;
    hello.token = wire::protocolVersion;
    hello[Field::identifier] = role;
    Frame welcome;
    if (Result result = exchange(hello, FrameType::welcome, welcome); result.hasFailed()) {
        return result;
    }
    if (welcome.token != wire::protocolVersion) {
        return {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE,
                "the broker speaks protocol version " + std::to_string(welcome.token)};
    }
    NegotiatedLimits limits = parseLimits(welcome[Field::payload]);
    if (!limits.error.empty()) {
        return {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE, std::move(limits.error)};
    }
    connection_.input().setPayloadLimit(limits.payloadBytes);
    connection_.input().dropFrame();
    return {};
}

Handshake::Result Handshake::registerFor(std::string_view category) {
    Frame registration;
    registration.type = FrameType::registration;
    registration[Field::category] = category;
    Frame acknowledgement;
    Result result = exchange(registration, FrameType::acknowledgement, acknowledgement);
    if (result.hasFailed()) {
        return result;
    }
    const auto status = statusIn(acknowledgement);
    connection_.input().dropFrame();
    return {status, kavri_core_status_text(status)};
}

Handshake::Result Handshake::exchange(const Frame& question, FrameType expected, Frame& answer) {
    write(question);
    if (Result result = awaitFrame(answer); result.hasFailed()) {
        return result;
    }
    if (answer.type == expected) {
        return {};
    }
    if (answer.type == FrameType::goodbye) {
        return {failureIn(answer, KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE),
                std::string(answer[Field::payload])};
    }
    return {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE, "the broker answered with an unexpected frame"};
}

// A failure to write is found by the read that follows: there may be a goodbye to be read.
void Handshake::write(const Frame& frame) {
    std::string bytes;
    wire::appendEncoded(frame, bytes);
    iovec piece{bytes.data(), bytes.size()};
    iovec* pieces = &piece;
    std::size_t count = 1;
    while (connection_.write(pieces, count) == Io::wouldBlock && !isOver()) {
        connection_.waitToWrite(waker_, false, deadline_);
    }
}

Handshake::Result Handshake::awaitFrame(Frame& frame) {
    while (true) {
        if (const auto received = connection_.input().nextFrame()) {
            frame = *received;
            return {};
        }
        const Io io = connection_.waitAndRead(waker_, deadline_);
        if (io == Io::lost && connection_.input().isMalformed()) {
            return {KAVRI_CORE_STATUS_IPC_INCOMPATIBLE,
                    "the program that listens there does not speak this protocol"};
        }
        if (io == Io::lost) {
            return {KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE, "the broker closed the connection"};
        }
        if (io == Io::wouldBlock && isOver()) {
            return {KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE, "no answer in time"};
        }
    }
}

}  // namespace kavri::core
