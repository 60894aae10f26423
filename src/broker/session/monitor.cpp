// The options of a monitor; see monitor.h.
#include "broker/session/monitor.h"

#include <algorithm>
#include <charconv>

#include "base/text_scanner.h"
#include "broker/session/session.h"

namespace kavri::broker {

namespace {

template <typename Number>
bool readNumber(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool readOption(std::string_view name, std::string_view value, Monitor& monitor) {
    if (name == "process") {
        return readNumber(value, monitor.process.emplace());
    }
    if (name == "user") {
        return readNumber(value, monitor.user.emplace());
    }
    if (name == "connection") {
        return readNumber(value, monitor.connection.emplace());
    }
    return name == "payload_bytes" && readNumber(value, monitor.payloadBytes);
}

}  // namespace

std::optional<Monitor> Monitor::asked(const wire::Frame& frame) {
    Monitor monitor;
    if (frame.has(wire::Field::category)) {
        monitor.category = frame[wire::Field::category];
    }
    std::string_view options = frame[wire::Field::payload];
    while (std::optional<std::string_view> line = base::takeLine(options)) {
        const auto name = base::takeUntil(*line, "=");
        if (!name || !readOption(*name, *line, monitor)) {
            return std::nullopt;
        }
    }
    monitor.payloadBytes = std::min(monitor.payloadBytes, mostPayloadBytes);
    return monitor;
}

bool Monitor::wants(const Session& peer) const {
    return (!process || *process == peer.process) && (!user || *user == peer.user) &&
           (!connection || *connection == numberOf(peer.id));
}

}  // namespace kavri::broker
