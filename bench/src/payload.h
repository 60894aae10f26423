// What the measured messages carry, and the check that it came through.
//
// Every payload is text and begins with what it is, its number and its sender;
// a fixed pattern fills it up. The receiver knows what must come next and
// compares: small payloads whole, every time; large ones at both ends, and
// whole every sixteenth time, since comparing a mebibyte would be a good part
// of what is measured. What differs ends the measurement.
#ifndef KAVRI_BENCH_PAYLOAD_H
#define KAVRI_BENCH_PAYLOAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kavri::bench {

enum class Kind : char {
    echo = 'e',     // a request to be answered with the same payload
    publish = 'p',  // a request to publish `amount` events first
    event = 'v',
    probe = 'b',  // an event that is not counted
};

inline constexpr std::size_t smallestPayloadBytes = 32;

struct Heading {
    Kind kind = Kind::echo;
    std::uint64_t number = 0;
    std::uint32_t sender = 0;
    std::uint32_t amount = 0;  // below 2^28
};

// A payload to be filled in again and again.
class Payload {
  public:
    explicit Payload(std::size_t bytes = smallestPayloadBytes);

    const std::string& with(const Heading& heading);

  private:
    std::string text_;
};

// Of what comes from one sender: the numbers follow each other from 0.
class PayloadCheck {
  public:
    PayloadCheck(Kind kind, std::size_t bytes, std::uint32_t sender = 0);

    // Throws where `payload` is not the next one.
    void next(std::string_view payload);

    std::uint64_t count() const { return heading_.number; }

  private:
    Payload expected_;
    Heading heading_;
};

Heading headingOf(std::string_view payload);

}  // namespace kavri::bench

#endif
