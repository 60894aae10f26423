// Reading the observer's lines; see module_events.h.
#include "cli/module_events.h"

#include <charconv>
#include <cstdint>
#include <optional>

#include "cli/text_scanner.h"

namespace kavri::cli {

namespace {

using Kind = ModuleEvent::Kind;

std::optional<std::chrono::microseconds> parseMicroseconds(std::string_view text) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return std::chrono::microseconds(value);
}

std::optional<ModuleEvent> parseEvent(std::string_view line) {
    if (line == "aborted") {
        return ModuleEvent{Kind::aborted, {}};
    }
    if (takePrefix(line, "ended ")) {
        const auto time = parseMicroseconds(takeUntil(line, " ").value_or(""));
        return time ? std::optional(ModuleEvent{Kind::ended, std::string(line), *time})
                    : std::nullopt;
    }
    for (const auto& [word, kind] : {std::pair{"began ", Kind::began},
                                     {"reached ", Kind::reached},
                                     {"passed ", Kind::passed},
                                     {"failed ", Kind::failed}}) {
        if (takePrefix(line, word)) {
            return ModuleEvent{kind, std::string(line)};
        }
    }
    return std::nullopt;
}

}  // namespace

std::vector<ModuleEvent> ModuleEvents::read(std::string_view bytes) {
    std::vector<ModuleEvent> events;
    partialLine_ += bytes;
    std::string_view rest = partialLine_;
    while (const auto line = takeUntil(rest, "\n")) {
        if (auto event = parseEvent(*line)) {
            events.push_back(std::move(*event));
        }
    }
    partialLine_.erase(0, partialLine_.size() - rest.size());
    return events;
}

}  // namespace kavri::cli
