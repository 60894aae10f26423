// What a monitor is shown, from a frame to values, and from these to a line of text or of
// JSON. The texts in it are those of unknown programs.
#ifndef KAVRI_MANAGEMENT_OBSERVED_H
#define KAVRI_MANAGEMENT_OBSERVED_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "wire/frame.h"

namespace kavri::management {

struct Peer {
    std::uint64_t connection = 0;
    std::uint64_t process = 0;
    std::uint64_t user = 0;
};

// A text of which the broker shows the beginning.
struct Beginning {
    std::string text;
    std::uint64_t bytes = 0;  // of the whole
};

struct Observed {
    std::chrono::sys_time<std::chrono::microseconds> at;
    std::uint64_t lost = 0;  // where it is not 0, there is nothing else

    std::string type;
    std::optional<Peer> from;  // nothing: the broker
    std::optional<Peer> to;    // nothing: the broker, nobody, or several
    std::uint64_t token = 0;
    unsigned status = 0;
    std::optional<Beginning> category;
    std::optional<Beginning> identifier;
    std::optional<Beginning> uuid;
    std::optional<std::string> payload;  // its beginning, where that was asked for
    std::optional<std::uint64_t> payloadBytes;
    std::optional<std::uint64_t> frameBytes;  // nothing: it is no frame
    std::optional<std::uint64_t> receivers;   // of an event
    std::optional<std::chrono::nanoseconds> elapsed;
    bool isDropped = false;
    std::string reason;
};

// Lines with names that are not known are left out.
Observed readObserved(const wire::Frame& frame);

// Without a line break.
std::string textOf(const Observed& observed);
// One line, of valid UTF-8: bytes that are none become U+FFFD.
std::string jsonOf(const Observed& observed);

// That the monitor lost its broker ("lost") or found the next one ("connected"), now.
std::string jsonOfBroker(const std::string& state);

}  // namespace kavri::management

#endif
