// The forms of what was observed; see observed.h.
#include "management/observed.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <kavri/core.h>

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <string_view>

#include "base/bounded_text.h"
#include "base/printable.h"
#include "base/text_scanner.h"

namespace kavri::management {

namespace {

using wire::Field;

// A time that can be shown: the last in the year 9999.
constexpr std::uint64_t lastMicrosecond = 253'402'300'799'999'999;

// What a line on a terminal shows of a name.
constexpr std::size_t longestShownName = 60;

std::uint64_t numberIn(std::string_view text) {
    std::uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

Peer peerIn(std::string_view text) {
    Peer peer;
    peer.connection = numberIn(base::takeUntil(text, "/").value_or(text));
    peer.process = numberIn(base::takeUntil(text, "/").value_or(text));
    peer.user = numberIn(text);
    return peer;
}

std::optional<Beginning> beginningOf(std::string_view field) {
    return field.data() == nullptr ? std::nullopt
                                   : std::optional(Beginning{std::string(field), field.size()});
}

void readLine(std::string_view name, std::string_view value, Observed& observed) {
    const auto setWhole = [&](std::optional<Beginning>& text) {
        if (text) {
            text->bytes = numberIn(value);
        }
    };
    if (name == "at") {
        observed.at += std::chrono::microseconds(std::min(numberIn(value), lastMicrosecond));
    } else if (name == "lost") {
        observed.lost = numberIn(value);
    } else if (name == "type") {
        observed.type = value;
    } else if (name == "from") {
        observed.from = peerIn(value);
    } else if (name == "to") {
        observed.to = peerIn(value);
    } else if (name == "bytes") {
        observed.frameBytes = numberIn(value);
    } else if (name == "payload_bytes") {
        observed.payloadBytes = numberIn(value);
    } else if (name == "category_bytes") {
        setWhole(observed.category);
    } else if (name == "identifier_bytes") {
        setWhole(observed.identifier);
    } else if (name == "uuid_bytes") {
        setWhole(observed.uuid);
    } else if (name == "receivers") {
        observed.receivers = numberIn(value);
    } else if (name == "elapsed_ns") {
        observed.elapsed = std::chrono::nanoseconds(numberIn(value));
    } else if (name == "dropped") {
        observed.isDropped = true;
    } else if (name == "reason") {
        observed.reason = value;
    }
}

const char* statusText(unsigned status) {
    return kavri_core_status_text(static_cast<kavri_core_status>(status));
}

std::string shown(const Beginning& name) {
    return base::printable(base::bounded(name.text, longestShownName, name.bytes));
}

std::string shown(const std::optional<Peer>& peer) {
    return peer ? fmt::format("{}[{}]", peer->connection, peer->process) : "broker";
}

// Whom it went to; the broker itself where it is the one that answered.
std::string receiverOf(const Observed& observed) {
    if (observed.receivers) {
        return fmt::format("{} subscriber{}", *observed.receivers,
                           *observed.receivers == 1 ? "" : "s");
    }
    return shown(observed.to);
}

std::string sizesOf(const Observed& observed) {
    std::string text = fmt::format("  {} B", observed.frameBytes.value_or(0));
    if (observed.payloadBytes) {
        text += fmt::format(" (payload {})", *observed.payloadBytes);
    }
    return text;
}

// "thousands,separated"
std::string withCommas(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::ptrdiff_t at = std::ssize(digits) - 3; at > 0; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), 1, ',');
    }
    return digits;
}

std::string clockTime(const Observed& observed) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(observed.at);
    return fmt::format("{:%H:%M:%S}.{:06}",
                       fmt::localtime(static_cast<std::time_t>(seconds.time_since_epoch().count())),
                       (observed.at - seconds).count());
}

std::string utcTime(std::chrono::sys_time<std::chrono::microseconds> moment) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(moment);
    return fmt::format("{:%FT%T}.{:06}Z",
                       fmt::gmtime(static_cast<std::time_t>(seconds.time_since_epoch().count())),
                       (moment - seconds).count());
}

double microseconds(std::chrono::nanoseconds time) {
    return static_cast<double>(time.count()) / 1000.0;
}

void addBeginning(nlohmann::ordered_json& json, const std::string& name,
                  const std::optional<Beginning>& text) {
    if (text) {
        json[name] = text->text;
        if (text->bytes > text->text.size()) {
            json[name + "_bytes"] = text->bytes;
        }
    }
}

void addPeer(nlohmann::ordered_json& json, const char* name, const std::optional<Peer>& peer) {
    if (peer) {
        json[name] = {
            {"connection", peer->connection}, {"process", peer->process}, {"user", peer->user}};
    }
}

}  // namespace

Observed readObserved(const wire::Frame& frame) {
    Observed observed;
    observed.token = frame.token;
    observed.status = frame.status;
    observed.category = beginningOf(frame[Field::category]);
    observed.identifier = beginningOf(frame[Field::identifier]);
    observed.uuid = beginningOf(frame[Field::uuid]);
    std::string_view rest = frame[Field::payload];
    while (std::optional<std::string_view> line = base::takeLine(rest)) {
        if (line->empty()) {
            observed.payload = rest;
            break;
        }
        if (const auto name = base::takeUntil(*line, "=")) {
            readLine(*name, *line, observed);
        }
    }
    return observed;
}

std::string textOf(const Observed& observed) {
    if (observed.lost > 0) {
        return fmt::format("{}  ... {} lost", clockTime(observed), withCommas(observed.lost));
    }
    std::string text = fmt::format("{}  {:<12}  {}", clockTime(observed),
                                   base::printable(observed.type), shown(observed.from));
    if (observed.frameBytes) {
        text += " -> " + receiverOf(observed);
    }
    if (observed.category) {
        text += "  " + shown(*observed.category);
    }
    if (observed.identifier) {
        text += (observed.category ? "/" : "  ") + shown(*observed.identifier);
    }
    if (observed.frameBytes) {
        text += fmt::format("  token {}{}", observed.token, sizesOf(observed));
    }
    if (observed.elapsed) {
        text += fmt::format("  after {:.1f} us", microseconds(*observed.elapsed));
    }
    if (observed.isDropped) {
        text += "  dropped";
    }
    if (observed.status != KAVRI_CORE_STATUS_NO_ERROR) {
        text += fmt::format("  status {}: {}", observed.status, statusText(observed.status));
    }
    if (!observed.reason.empty()) {
        text += "  " + base::printable(observed.reason);
    }
    if (observed.payload) {
        text += "  \"" +
                base::printable(base::bounded(*observed.payload, observed.payload->size(),
                                              observed.payloadBytes.value_or(0))) +
                "\"";
    }
    return text;
}

std::string jsonOf(const Observed& observed) {
    nlohmann::ordered_json json;
    json["time"] = utcTime(observed.at);
    if (observed.lost > 0) {
        json["lost"] = observed.lost;
        return json.dump();
    }
    json["type"] = observed.type;
    addPeer(json, "from", observed.from);
    addPeer(json, "to", observed.to);
    if (observed.receivers) {
        json["receivers"] = *observed.receivers;
    }
    if (observed.frameBytes) {
        json["token"] = observed.token;
        json["bytes"] = *observed.frameBytes;
    }
    addBeginning(json, "category", observed.category);
    addBeginning(json, "identifier", observed.identifier);
    addBeginning(json, "uuid", observed.uuid);
    if (observed.payloadBytes) {
        json["payload_bytes"] = *observed.payloadBytes;
    }
    if (observed.payload) {
        json["payload"] = *observed.payload;
    }
    if (observed.elapsed) {
        json["elapsed_us"] = microseconds(*observed.elapsed);
    }
    if (observed.isDropped) {
        json["dropped"] = true;
    }
    if (observed.status != KAVRI_CORE_STATUS_NO_ERROR) {
        json["status"] = observed.status;
        json["status_text"] = statusText(observed.status);
    }
    if (!observed.reason.empty()) {
        json["reason"] = observed.reason;
    }
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string jsonOfBroker(const std::string& state) {
    const auto now =
        std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
    return nlohmann::ordered_json{{"time", utcTime(now)}, {"broker", state}}.dump();
}

}  // namespace kavri::management
