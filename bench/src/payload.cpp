// Payloads and their check; see payload.h.
#include "payload.h"

#include <algorithm>
#include <stdexcept>

namespace kavri::bench {

namespace {

// Widths in hexadecimal digits; the kind takes one byte in front.
constexpr std::size_t numberDigits = 16;
constexpr std::size_t senderDigits = 8;
constexpr std::size_t amountDigits = 7;
static_assert(1 + numberDigits + senderDigits + amountDigits == smallestPayloadBytes);

constexpr std::size_t wholeBytes = 4096;
constexpr std::size_t endBytes = 64;
constexpr std::uint64_t wholeEvery = 16;

char* write(char* at, std::uint64_t value, std::size_t digits) {
    for (std::size_t i = digits; i > 0; --i) {
        at[i - 1] = "0123456789abcdef"[value & 15U];
        value >>= 4U;
    }
    return at + digits;
}

std::uint64_t read(std::string_view& text, std::size_t digits) {
    std::uint64_t value = 0;
    for (const char digit : text.substr(0, digits)) {
        value =
            value * 16 + static_cast<std::uint64_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
    }
    text.remove_prefix(digits);
    return value;
}

bool isSame(std::string_view payload, std::string_view expected, std::uint64_t number) {
    if (payload.size() != expected.size()) {
        return false;
    }
    if (expected.size() <= wholeBytes || number % wholeEvery == 0) {
        return payload == expected;
    }
    const std::size_t tail = expected.size() - endBytes;
    return payload.substr(0, endBytes) == expected.substr(0, endBytes) &&
           payload.substr(tail) == expected.substr(tail);
}

}  // namespace

Payload::Payload(std::size_t bytes) : text_(std::max(bytes, smallestPayloadBytes), ' ') {
    for (std::size_t i = smallestPayloadBytes; i < text_.size(); ++i) {
        text_[i] = static_cast<char>('!' + (i * 7 + i / 4096) % 90);
    }
}

const std::string& Payload::with(const Heading& heading) {
    text_[0] = static_cast<char>(heading.kind);
    char* at = write(text_.data() + 1, heading.number, numberDigits);
    at = write(at, heading.sender, senderDigits);
    write(at, heading.amount, amountDigits);
    return text_;
}

PayloadCheck::PayloadCheck(Kind kind, std::size_t bytes, std::uint32_t sender)
    : expected_(bytes), heading_{kind, 0, sender, 0} {}

void PayloadCheck::next(std::string_view payload) {
    const std::string& expected = expected_.with(heading_);
    if (!isSame(payload, expected, heading_.number)) {
        throw std::runtime_error("a message came through changed, twice or out of order: \"" +
                                 std::string(payload.substr(0, endBytes)) + "\" of " +
                                 std::to_string(payload.size()) + " bytes instead of \"" +
                                 expected.substr(0, endBytes) + "\" of " +
                                 std::to_string(expected.size()));
    }
    ++heading_.number;
}

Heading headingOf(std::string_view payload) {
    if (payload.size() < smallestPayloadBytes) {
        throw std::runtime_error("a message came through cut short");
    }
    Heading heading;
    heading.kind = static_cast<Kind>(payload.front());
    payload.remove_prefix(1);
    heading.number = read(payload, numberDigits);
    heading.sender = static_cast<std::uint32_t>(read(payload, senderDigits));
    heading.amount = static_cast<std::uint32_t>(read(payload, amountDigits));
    return heading;
}

}  // namespace kavri::bench
