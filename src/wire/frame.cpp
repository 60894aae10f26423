// Frames to bytes and back; see frame.h for the layout.
#include "wire/frame.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "wire/limits.h"

namespace kavri::wire {

namespace {

constexpr std::size_t typeOffset = 4;
constexpr std::size_t presentOffset = 5;
constexpr std::size_t statusOffset = 6;
constexpr std::size_t tokenOffset = 8;
constexpr std::size_t lengthsOffset = 16;
constexpr std::size_t lengthWidth = 4;

// Little-endian, whatever the machine.
template <typename Integer>
Integer toOrFromWire(Integer value) {
    if constexpr (std::endian::native == std::endian::big) {
        auto* bytes = reinterpret_cast<unsigned char*>(&value);
        std::reverse(bytes, bytes + sizeof value);
    }
    return value;
}

template <typename Integer>
Integer load(const char* bytes) {
    Integer value;
    std::memcpy(&value, bytes, sizeof value);
    return toOrFromWire(value);
}

template <typename Integer>
void store(char* bytes, Integer value) {
    value = toOrFromWire(value);
    std::memcpy(bytes, &value, sizeof value);
}

constexpr std::uint8_t bit(Field field) {
    return static_cast<std::uint8_t>(1U << static_cast<unsigned>(field));
}

struct TypeRule {
    std::uint8_t required = 0;
    std::uint8_t allowed = 0;
    std::string_view name;
};

// Which fields a frame of each type must and may have, by the type's number.
constexpr std::array<TypeRule, 20> rules = [] {
    constexpr std::uint8_t category = bit(Field::category);
    constexpr std::uint8_t identifier = bit(Field::identifier);
    constexpr std::uint8_t uuid = bit(Field::uuid);
    constexpr std::uint8_t payload = bit(Field::payload);
    constexpr std::uint8_t all = category | identifier | uuid | payload;
    constexpr std::uint8_t eventFields = category | identifier | payload;
    std::array<TypeRule, 20> table{};
    auto rule = [&table](FrameType type, std::uint8_t required, std::uint8_t allowed,
                         std::string_view name) {
        table[static_cast<std::size_t>(type)] = {required, allowed, name};
    };
    rule(FrameType::hello, identifier, identifier, "hello");
    rule(FrameType::welcome, uuid | payload, uuid | payload, "welcome");
    rule(FrameType::request, all, all, "request");
    rule(FrameType::response, category | identifier | uuid, all, "response");
    rule(FrameType::completion, 0, 0, "completion");
    rule(FrameType::event, eventFields, eventFields, "event");
    rule(FrameType::publish, eventFields, eventFields, "publish");
    rule(FrameType::subscribe, category, category, "subscribe");
    rule(FrameType::unsubscribe, category, category, "unsubscribe");
    rule(FrameType::registration, category, category, "registration");
    rule(FrameType::acknowledgement, 0, 0, "acknowledgement");
    rule(FrameType::notice, 0, 0, "notice");
    rule(FrameType::ping, 0, 0, "ping");
    rule(FrameType::pong, 0, 0, "pong");
    rule(FrameType::goodbye, payload, payload, "goodbye");
    rule(FrameType::query, 0, 0, "query");
    rule(FrameType::report, identifier | payload, category | identifier | payload, "report");
    rule(FrameType::monitor, 0, category | payload, "monitor");
    rule(FrameType::observed, payload, all, "observed");
    return table;
}();

const TypeRule* ruleOf(std::uint8_t type) {
    return type < rules.size() && !rules[type].name.empty() ? &rules[type] : nullptr;
}

std::uint32_t fieldLength(const char* bytes, std::size_t index) {
    return load<std::uint32_t>(bytes + lengthsOffset + index * lengthWidth);
}

bool hasNul(const char* text, std::size_t length) {
    return std::memchr(text, '\0', length) != nullptr;
}

std::optional<FrameError> checkFields(const char* bytes, std::size_t payloadLimitBytes) {
    const auto present = static_cast<std::uint8_t>(bytes[presentOffset]);
    std::uint64_t total = headerBytes;
    for (std::size_t i = 0; i < fieldCount; ++i) {
        const std::uint32_t length = fieldLength(bytes, i);
        if (length != 0 && (present & (1U << i)) == 0) {
            return FrameError::lengthMismatch;
        }
        if (static_cast<Field>(i) == Field::payload) {
            if (length > payloadLimitBytes) {
                return FrameError::payloadTooLong;
            }
        } else if (length > fieldLimitBytes) {
            return FrameError::fieldTooLong;
        }
        total += length;
    }
    if (total != load<std::uint32_t>(bytes)) {
        return FrameError::lengthMismatch;
    }
    return std::nullopt;
}

}  // namespace

std::string_view errorText(FrameError error) {
    switch (error) {
        case FrameError::lengthMismatch:
            return "the lengths in the header contradict each other";
        case FrameError::unknownType:
            return "unknown frame type";
        case FrameError::fieldMissing:
            return "a field that this type must have is missing";
        case FrameError::fieldUnexpected:
            return "a field that this type does not have is present";
        case FrameError::fieldTooLong:
            return "a category, identifier or uuid is above 64 KiB";
        case FrameError::payloadTooLong:
            return "the payload is above the limit of this connection";
        case FrameError::nulInField:
            return "a field has a NUL byte in it";
    }
    return "malformed";
}

std::string_view typeName(FrameType type) {
    const TypeRule* rule = ruleOf(static_cast<std::uint8_t>(type));
    return rule == nullptr ? std::string_view("unknown") : rule->name;
}

Measured measure(const char* bytes, std::size_t payloadLimitBytes) {
    const TypeRule* rule = ruleOf(static_cast<std::uint8_t>(bytes[typeOffset]));
    if (rule == nullptr) {
        return {0, FrameError::unknownType};
    }
    const auto present = static_cast<std::uint8_t>(bytes[presentOffset]);
    if ((present & rule->required) != rule->required) {
        return {0, FrameError::fieldMissing};
    }
    if ((present & ~rule->allowed) != 0) {
        return {0, FrameError::fieldUnexpected};
    }
    if (auto error = checkFields(bytes, payloadLimitBytes)) {
        return {0, error};
    }
    return {load<std::uint32_t>(bytes), std::nullopt};
}

Extent extentOf(const char* bytes) {
    const std::size_t payloadBytes = fieldLength(bytes, static_cast<std::size_t>(Field::payload));
    return {load<std::uint32_t>(bytes) - payloadBytes, payloadBytes};
}

FrameType typeOf(const char* bytes) {
    return static_cast<FrameType>(bytes[typeOffset]);
}

bool hasNul(const char* bytes) {
    return hasNul(bytes + headerBytes, load<std::uint32_t>(bytes) - headerBytes);
}

std::optional<std::string_view> categoryOf(const char* bytes, std::size_t count) {
    constexpr auto category = static_cast<std::size_t>(Field::category);
    const std::size_t length = fieldLength(bytes, category);
    const bool isPresent = (static_cast<std::uint8_t>(bytes[presentOffset]) >> category & 1U) != 0;
    if (!isPresent || headerBytes + length > count) {
        return std::nullopt;
    }
    return std::string_view(bytes + headerBytes, length);
}

// The result is filled where it will be used: it is too large to be copied for
// nothing.
std::optional<Frame> decode(const char* bytes, const char* payload) {
    std::optional<Frame> decoded;
    const Extent extent = extentOf(bytes);
    const char* const payloadAt = payload != nullptr ? payload : bytes + extent.headBytes;
    const std::size_t behindHead = payload == nullptr ? extent.payloadBytes : 0;
    if (hasNul(bytes + headerBytes, extent.headBytes - headerBytes + behindHead) ||
        (payload != nullptr && hasNul(payload, extent.payloadBytes))) {
        return decoded;
    }
    Frame& frame = decoded.emplace();
    frame.type = typeOf(bytes);
    frame.status = load<std::uint16_t>(bytes + statusOffset);
    frame.token = load<std::uint64_t>(bytes + tokenOffset);
    const auto present = static_cast<std::uint8_t>(bytes[presentOffset]);
    const char* field = bytes + headerBytes;
    for (std::size_t i = 0; i < fieldCount; ++i) {
        if ((present & (1U << i)) != 0) {
            const bool isPayload = static_cast<Field>(i) == Field::payload;
            frame.fields[i] =
                std::string_view(isPayload ? payloadAt : field, fieldLength(bytes, i));
            field += frame.fields[i].size();
        }
    }
    return decoded;
}

std::size_t encodedBytes(const Frame& frame) {
    std::size_t total = headerBytes;
    for (const std::string_view& field : frame.fields) {
        total += field.size();
    }
    return total;
}

Header encodeHeader(const Frame& frame) {
    Header header{};
    std::uint8_t present = 0;
    for (std::size_t i = 0; i < fieldCount; ++i) {
        const std::string_view field = frame.fields[i];
        present = static_cast<std::uint8_t>(present | ((field.data() != nullptr ? 1U : 0U) << i));
        store(header.data() + lengthsOffset + i * lengthWidth,
              static_cast<std::uint32_t>(field.size()));
    }
    store(header.data(), static_cast<std::uint32_t>(encodedBytes(frame)));
    header[typeOffset] = static_cast<char>(frame.type);
    header[presentOffset] = static_cast<char>(present);
    store(header.data() + statusOffset, frame.status);
    store(header.data() + tokenOffset, frame.token);
    return header;
}

void appendEncoded(const Frame& frame, std::string& bytes) {
    const Header header = encodeHeader(frame);
    bytes.append(header.data(), header.size());
    for (const std::string_view& field : frame.fields) {
        bytes.append(field);
    }
}

void replaceToken(char* frameBytes, std::uint64_t token) {
    store(frameBytes + tokenOffset, token);
}

void replaceType(char* frameBytes, FrameType type) {
    frameBytes[typeOffset] = static_cast<char>(type);
}

}  // namespace kavri::wire
