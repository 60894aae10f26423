// Frames in tests: made in a line, and shown as a line.
//
//     request 7 category=test identifier=echo uuid=u payload=hi
//     notice 7 status=10
//
// A field that is absent is not shown; an empty one is shown as `payload=`.
#ifndef KAVRI_TESTS_SUPPORT_FRAMES_H
#define KAVRI_TESTS_SUPPORT_FRAMES_H

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "wire/frame.h"
#include "wire/limits.h"

namespace kavri::tests {

using wire::Field;
using wire::Frame;
using wire::FrameType;

inline constexpr std::array allTypes = {FrameType::hello,
                                        FrameType::welcome,
                                        FrameType::request,
                                        FrameType::response,
                                        FrameType::completion,
                                        FrameType::event,
                                        FrameType::publish,
                                        FrameType::subscribe,
                                        FrameType::unsubscribe,
                                        FrameType::registration,
                                        FrameType::acknowledgement,
                                        FrameType::notice,
                                        FrameType::ping,
                                        FrameType::pong,
                                        FrameType::goodbye,
                                        FrameType::query,
                                        FrameType::report,
                                        FrameType::monitor,
                                        FrameType::observed};

// Those left out are absent.
struct Fields {
    std::string_view category{};
    std::string_view identifier{};
    std::string_view uuid{};
    std::string_view payload{};
};

inline Frame makeFrame(FrameType type, std::uint64_t token, const Fields& fields = {},
                       std::uint16_t status = 0) {
    Frame frame;
    frame.type = type;
    frame.token = token;
    frame.status = status;
    frame.fields = {fields.category, fields.identifier, fields.uuid, fields.payload};
    return frame;
}

inline Frame helloFrame(std::string_view role, std::uint64_t version = wire::protocolVersion) {
    return makeFrame(FrameType::hello, version, {.identifier = role});
}

// With just the fields that a frame of this type must have, each holding its own name.
inline Frame smallestFrame(FrameType type, std::uint64_t token) {
    switch (type) {
        case FrameType::hello:
            return makeFrame(type, token, {.identifier = "identifier"});
        case FrameType::welcome:
            return makeFrame(type, token, {.uuid = "uuid", .payload = "payload"});
        case FrameType::request:
            return makeFrame(type, token, {"category", "identifier", "uuid", "payload"});
        case FrameType::response:
            return makeFrame(type, token, {"category", "identifier", "uuid", {}});
        case FrameType::event:
        case FrameType::publish:
            return makeFrame(type, token, {"category", "identifier", {}, "payload"});
        case FrameType::subscribe:
        case FrameType::unsubscribe:
        case FrameType::registration:
            return makeFrame(type, token, {.category = "category"});
        case FrameType::goodbye:
        case FrameType::observed:
            return makeFrame(type, token, {.payload = "payload"});
        case FrameType::report:
            return makeFrame(type, token, {.identifier = "identifier", .payload = "payload"});
        default:
            return makeFrame(type, token);
    }
}

inline std::string encode(const Frame& frame) {
    std::string bytes;
    wire::appendEncoded(frame, bytes);
    return bytes;
}

inline std::string describe(const Frame& frame) {
    constexpr std::array<const char*, wire::fieldCount> names = {"category", "identifier", "uuid",
                                                                 "payload"};
    constexpr std::size_t longestShown = 100;
    std::string text(wire::typeName(frame.type));
    text += " " + std::to_string(frame.token);
    if (frame.status != 0) {
        text += " status=" + std::to_string(frame.status);
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string_view field = frame.fields[i];
        if (field.data() != nullptr) {
            text += std::string(" ") + names[i] + "=";
            text += field.size() <= longestShown ? std::string(field)
                                                 : "(" + std::to_string(field.size()) + " bytes)";
        }
    }
    return text;
}

// The frames that `bytes` consist of; they point into it. Throws where it is not whole frames.
inline std::vector<Frame> framesIn(std::string_view bytes) {
    std::vector<Frame> frames;
    while (!bytes.empty()) {
        if (bytes.size() < wire::headerBytes) {
            throw std::runtime_error("a part of a header is left");
        }
        const auto measured = wire::measure(bytes.data(), wire::payloadCeilingBytes);
        if (measured.error) {
            throw std::runtime_error(std::string(wire::errorText(*measured.error)));
        }
        if (measured.frameBytes > bytes.size()) {
            throw std::runtime_error("a part of a frame is left");
        }
        const auto frame = wire::decode(bytes.data());
        if (!frame) {
            throw std::runtime_error("a field has a NUL in it");
        }
        frames.push_back(*frame);
        bytes.remove_prefix(measured.frameBytes);
    }
    return frames;
}

// One frame a line.
inline std::string describeAll(std::string_view bytes) {
    std::string text;
    for (const Frame& frame : framesIn(bytes)) {
        text += (text.empty() ? "" : "\n") + describe(frame);
    }
    return text;
}

}  // namespace kavri::tests

#endif
