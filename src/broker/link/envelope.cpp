// The layout of messages between brokers; see envelope.h.
#include "broker/link/envelope.h"

#include <algorithm>
#include <concepts>

namespace kavri::broker {

namespace {

constexpr std::uint8_t layoutVersion = 1;

template <std::unsigned_integral Number>
void append(Number number, std::string& bytes) {
    for (std::size_t i = 0; i < sizeof number; ++i) {
        bytes.push_back(static_cast<char>(number >> (8 * i)));
    }
}

template <std::unsigned_integral Number>
Number numberAt(const char* bytes) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) {
        number |= std::uint64_t{static_cast<std::uint8_t>(bytes[i])} << (8 * i);
    }
    return static_cast<Number>(number);
}

bool isKind(std::uint8_t kind) {
    return kind >= static_cast<std::uint8_t>(EnvelopeKind::open) &&
           kind <= static_cast<std::uint8_t>(EnvelopeKind::events);
}

}  // namespace

void appendEncoded(const Envelope& envelope, std::string& bytes) {
    append(layoutVersion, bytes);
    append(static_cast<std::uint8_t>(envelope.kind), bytes);
    append(envelope.status, bytes);
    append(std::uint32_t{0}, bytes);
    bytes.append(envelope.sender.begin(), envelope.sender.end());
    append(envelope.epoch, bytes);
    append(envelope.number, bytes);
    append(envelope.channel, bytes);
    append(envelope.value, bytes);
    append(envelope.heardEpoch, bytes);
}

std::optional<Opened> openEnvelope(std::string_view message) {
    const char* const bytes = message.data();
    if (message.size() < envelopeBytes || numberAt<std::uint8_t>(bytes) != layoutVersion ||
        !isKind(numberAt<std::uint8_t>(bytes + 1))) {
        return std::nullopt;
    }
    Opened opened;
    opened.envelope.kind = static_cast<EnvelopeKind>(bytes[1]);
    opened.envelope.status = numberAt<std::uint16_t>(bytes + 2);
    std::copy_n(bytes + 8, opened.envelope.sender.size(), opened.envelope.sender.begin());
    opened.envelope.epoch = numberAt<std::uint64_t>(bytes + 24);
    opened.envelope.number = numberAt<std::uint64_t>(bytes + 32);
    opened.envelope.channel = numberAt<std::uint64_t>(bytes + 40);
    opened.envelope.value = numberAt<std::uint64_t>(bytes + 48);
    opened.envelope.heardEpoch = numberAt<std::uint64_t>(bytes + 56);
    opened.content = message.substr(envelopeBytes);
    return opened;
}

}  // namespace kavri::broker
