// The limits that the broker names in its welcome. No I/O.
#ifndef KAVRI_CORE_CONNECTION_NEGOTIATED_LIMITS_H
#define KAVRI_CORE_CONNECTION_NEGOTIATED_LIMITS_H

#include <cstddef>
#include <string>
#include <string_view>

#include "wire/limits.h"

namespace kavri::core {

struct NegotiatedLimits {
    std::size_t payloadBytes = wire::Limits{}.payloadBytes;  // where the welcome names none
    std::string error;  // why the text is malformed; empty where it is not
};

// Reads lines of name=value, each ended by a line feed. Names that this library does not know
// are of later versions, and ignored.
NegotiatedLimits parseLimits(std::string_view text);

}  // namespace kavri::core

#endif
