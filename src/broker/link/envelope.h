// What goes before the content of every message between brokers: who sent it, its number,
// and what it is about.
//
// 64 bytes, little-endian:
//
//     offset  bytes
//          0      1  version of this layout
//          1      1  kind
//          2      2  status, a kavri_core_status
//          4      4  zero
//          8     16  the sender's identity
//         24      8  epoch: the numbers below count from 0 in each; the first epoch is 1
//         32      8  number of the message in its epoch
//         40      8  channel, as the receiver numbers it
//         48      8  value; its meaning is the kind's
//         56      8  the receiver's epoch that the sender has heard from; 0: none
#ifndef KAVRI_BROKER_LINK_ENVELOPE_H
#define KAVRI_BROKER_LINK_ENVELOPE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kavri/core.h"

namespace kavri::broker {

// Of a broker from its start to its end; a later one on the same machine has another.
using BrokerIdentity = std::array<std::uint8_t, 16>;

enum class EnvelopeKind : std::uint8_t {
    // To one of those who serve a category, without epoch and number: open a channel to your
    // responder. value: the channel as the asker numbers it; content: the category.
    open = 1,
    opened = 2,   // value: the channel as its responder's broker numbers it
    refused = 3,  // in place of opened; status: why
    frames = 4,   // content: whole frames; value: bytes of frames handled so far
    credit = 5,   // value: the same, where no frames go that way
    close = 6,    // the channel; status: why
    ping = 7,     // value: the sender's clock
    pong = 8,     // value: that of the ping
    // Without number. epoch: of mine, which has ended, or 0; value: of yours, of which I got a
    // number that I did not expect, or 0.
    reset = 9,
    events = 10,  // content: whole publish frames of one category; numbered for itself
};

struct Envelope {
    EnvelopeKind kind{};
    std::uint16_t status = 0;
    BrokerIdentity sender{};
    std::uint64_t epoch = 0;
    std::uint64_t number = 0;
    std::uint64_t channel = 0;
    std::uint64_t value = 0;
    std::uint64_t heardEpoch = 0;
};

inline constexpr std::size_t envelopeBytes = 64;

void appendEncoded(const Envelope& envelope, std::string& bytes);

struct Opened {
    Envelope envelope;
    std::string_view content;
};
// Nothing where it is no message between brokers, or one of another version.
std::optional<Opened> openEnvelope(std::string_view message);

}  // namespace kavri::broker

#endif
