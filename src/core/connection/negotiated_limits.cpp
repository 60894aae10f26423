// Lines of name=value; see negotiated_limits.h.
#include "core/connection/negotiated_limits.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace kavri::core {

namespace {

// Malformed limits are quoted in a log line, which is to stay one.
constexpr std::size_t longestQuote = 60;

std::string malformed(std::string_view line, std::string_view why) {
    std::string error = "the limits in the broker's welcome are malformed: \"";
    error.append(line.substr(0, longestQuote)).append("\" ").append(why);
    return error;
}

// Digits and nothing else.
std::optional<std::size_t> numberIn(std::string_view value) {
    std::size_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [parsed, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || parsed != end) {
        return std::nullopt;
    }
    return number;
}

}  // namespace

NegotiatedLimits parseLimits(std::string_view text) {
    NegotiatedLimits limits;
    bool hasPayloadBytes = false;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.size() == text.size()) {
            return {.error = malformed(line, "does not end with a line feed")};
        }
        text.remove_prefix(line.size() + 1);
        const std::size_t nameBytes = line.find('=');
        if (nameBytes == std::string_view::npos || nameBytes == 0) {
            return {.error = malformed(line, "is not of the form name=value")};
        }
        if (line.substr(0, nameBytes) != "payload_bytes") {
            continue;
        }
        if (std::exchange(hasPayloadBytes, true)) {
            return {.error = malformed(line, "comes a second time")};
        }
        const std::optional<std::size_t> number = numberIn(line.substr(nameBytes + 1));
        if (!number) {
            return {.error = malformed(line, "has no number that fits")};
        }
        limits.payloadBytes = std::min(*number, wire::payloadCeilingBytes);
    }
    return limits;
}

}  // namespace kavri::core
