// Bytes to frames and back; see targets.h.
#include <algorithm>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "fuzz/targets.h"
#include "support/frames.h"

namespace kavri::tests {

namespace {

constexpr std::size_t payloadLimit = 4096;

void checkFrame(const Frame& frame, std::string_view bytes) {
    mustHold(wire::encodedBytes(frame) == bytes.size(), "a frame has the size it says");
    mustHold(encode(frame) == bytes, "a frame is encoded as it came");
    mustHold(wire::typeName(frame.type) != "unknown", "a frame has a type");
    mustHold(frame[Field::payload].size() <= payloadLimit, "a payload is within the limit");
    for (const std::string_view field : frame.fields) {
        mustHold(field.find('\0') == std::string_view::npos, "a field has no NUL");
    }
}

}  // namespace

std::size_t fuzzFrames(std::string_view bytes) {
    std::size_t decoded = 0;
    while (bytes.size() >= wire::headerBytes) {
        const wire::Measured measured = wire::measure(bytes.data(), payloadLimit);
        if (measured.error) {
            mustHold(!wire::errorText(*measured.error).empty(), "an error has a text");
            break;
        }
        mustHold(measured.frameBytes >= wire::headerBytes, "a frame has a header");
        if (measured.frameBytes > bytes.size()) {
            break;
        }
        // In memory of just its size, so that a byte read too far is noticed.
        const std::vector<char> alone(
            bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(measured.frameBytes));
        if (const auto frame = wire::decode(alone.data())) {
            checkFrame(*frame, {alone.data(), alone.size()});
            ++decoded;
        }
        bytes.remove_prefix(measured.frameBytes);
    }
    return decoded;
}

}  // namespace kavri::tests
