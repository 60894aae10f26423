// Frames: the unit of everything that crosses a connection, from bytes to
// values and back. No I/O and no state.
//
// A frame is a header of 32 bytes, little-endian, and up to four fields behind
// it, in this order and without separators:
//
//     offset  bytes
//          0      4  length of the whole frame, header included
//          4      1  type
//          5      1  which fields are present: bit 0 category, 1 identifier,
//                    2 uuid, 3 payload
//          6      2  status, a kavri_core_status
//          8      8  token: relates an answer to what it answers
//         16      4  length of the category
//         20      4  length of the identifier
//         24      4  length of the uuid
//         28      4  length of the payload
//         32         category, identifier, uuid, payload
//
// An absent field has length 0 and differs from an empty one. Fields hold any
// byte but NUL.
#ifndef KAVRI_WIRE_FRAME_H
#define KAVRI_WIRE_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kavri/core.h"

namespace kavri::wire {

// Raised with every change that a peer of the version before could misread.
inline constexpr std::uint64_t protocolVersion = 1;

inline constexpr std::size_t headerBytes = 32;

enum class FrameType : std::uint8_t {
    hello = 1,             // to the broker: token is the version, identifier the role
    welcome = 2,           // from it: token is the version, uuid its identity, payload the limits
    request = 3,           // to a responder; the broker replaces the sender's token by its own
    response = 4,          // back; the same tokens
    completion = 5,        // in a response's place: there will be no answer
    event = 6,             // to a subscriber
    publish = 7,           // from a responder
    subscribe = 8,         // from an initiator
    unsubscribe = 9,       // from an initiator
    registration = 10,     // from a responder: it serves the category
    acknowledgement = 11,  // of the three before: their token, and the result
    notice = 12,           // in a response's place: why there is none
    ping = 13,             // to the broker, which answers with a
    pong = 14,             // of the same token
    goodbye = 15,          // the sender closes; payload is the reason
    query = 16,            // from a manager: what the broker is doing
    report = 17,           // to it, many: identifier is what of, payload the figures
    monitor = 18,          // from a manager: it wants to see what passes; payload is which
    observed = 19,         // to it: token, status and names of what passed, payload the rest
};

// The fields, in their order on the wire.
enum class Field : std::uint8_t { category, identifier, uuid, payload };
inline constexpr std::size_t fieldCount = 4;

// A frame as values. The fields point into memory that the frame does not own; an absent
// one has no data pointer.
struct Frame {
    FrameType type{};
    std::uint16_t status = 0;
    std::uint64_t token = 0;
    std::array<std::string_view, fieldCount> fields{};

    std::string_view operator[](Field field) const {
        return fields[static_cast<std::size_t>(field)];
    }
    std::string_view& operator[](Field field) { return fields[static_cast<std::size_t>(field)]; }
    bool has(Field field) const { return (*this)[field].data() != nullptr; }
};

using Header = std::array<char, headerBytes>;

// Why bytes are no frame.
enum class FrameError : std::uint8_t {
    lengthMismatch,   // the lengths in the header contradict each other
    unknownType,      //
    fieldMissing,     // a frame of this type must have a field that it lacks
    fieldUnexpected,  // or has one that it must not have
    fieldTooLong,     // above fieldLimitBytes
    payloadTooLong,   // above the negotiated limit
    nulInField,       //
};
std::string_view errorText(FrameError error);

// The length of the frame that begins at `bytes`, or why it is malformed. At least
// headerBytes must be there; everything that the header can show is checked.
struct Measured {
    std::size_t frameBytes = 0;
    std::optional<FrameError> error;
};
Measured measure(const char* bytes, std::size_t payloadLimitBytes);

// The values of a measured frame, all of whose bytes are there, or nothing where a field has
// a NUL in it. The fields point into `bytes`, and the payload's to `payload` where that is
// given.
std::optional<Frame> decode(const char* bytes, const char* payload = nullptr);

// The bytes of a measured frame before its payload, and those of the payload; all
// of the header must be there.
struct Extent {
    std::size_t headBytes = 0;
    std::size_t payloadBytes = 0;
};
Extent extentOf(const char* bytes);

// The type of a measured frame.
FrameType typeOf(const char* bytes);
// Whether a field of a measured frame, all of whose bytes are there, has a NUL in it.
bool hasNul(const char* bytes);

// The category of a measured frame of which the first `count` bytes are there;
// nothing where it has none or not all of it is there.
std::optional<std::string_view> categoryOf(const char* bytes, std::size_t count);

// The header that goes before the fields of `frame`.
Header encodeHeader(const Frame& frame);
std::size_t encodedBytes(const Frame& frame);
void appendEncoded(const Frame& frame, std::string& bytes);

// Replaces the token of an encoded frame: the broker forwards frames as received, and changes
// nothing else in them.
void replaceToken(char* frameBytes, std::uint64_t token);
// Likewise the type: a publish becomes an event.
void replaceType(char* frameBytes, FrameType type);

std::string_view typeName(FrameType type);

}  // namespace kavri::wire

#endif
