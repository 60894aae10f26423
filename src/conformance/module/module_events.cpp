// Reading the lines; see module_events.h.
#include "conformance/module/module_events.h"

#include <array>
#include <charconv>
#include <optional>
#include <utility>

#include "base/text_scanner.h"

namespace kavri::conformance {

namespace {

using Kind = ModuleEvent::Kind;

// What follows the word, the time and the thread, in this order.
struct Form {
    std::string_view word;
    Kind kind;
    bool hasNumber;
    bool hasText;  // the last thing, unless JSON follows it
    bool hasData;
};

constexpr std::array forms = {
    Form{"began", Kind::began, false, true, false},
    Form{"passed", Kind::passed, false, true, true},
    Form{"failed", Kind::failed, false, true, true},
    Form{"aborted", Kind::aborted, false, false, true},
    Form{"ended", Kind::ended, true, true, false},
    Form{"call", Kind::call, true, true, true},
    Form{"return", Kind::returned, true, false, true},
    Form{"deliver", Kind::deliver, true, true, true},
    Form{"delivered", Kind::delivered, true, false, false},
    Form{"fault", Kind::fault, false, true, true},
    Form{"peer", Kind::peer, false, true, true},
    Form{"left", Kind::left, false, false, true},
    Form{"round", Kind::round, true, false, true},
    Form{"breach", Kind::breach, true, false, true},
    Form{"crash", Kind::crash, true, false, true},
    Form{"exit", Kind::exit, true, false, true},
    Form{"stack", Kind::stack, false, false, true},
};

// A word up to the next blank, or the end.
std::string_view takeWord(std::string_view& line) {
    if (const auto word = base::takeUntil(line, " ")) {
        return *word;
    }
    return std::exchange(line, {});
}

template <typename Number>
bool takeNumber(std::string_view& line, Number& number) {
    const std::string_view text = takeWord(line);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// The text ends before the JSON, at the first " {": no text contains that.
std::string_view takeText(std::string_view& line, bool hasData) {
    if (!hasData) {
        return std::exchange(line, {});
    }
    const std::size_t end = line.find(" {");
    if (end == std::string_view::npos) {
        return std::exchange(line, {});
    }
    const std::string_view text = line.substr(0, end);
    line.remove_prefix(end + 1);
    return text;
}

std::optional<ModuleEvent> parseEvent(std::string_view line) {
    const std::string_view word = takeWord(line);
    for (const Form& form : forms) {
        if (form.word != word) {
            continue;
        }
        ModuleEvent event;
        event.kind = form.kind;
        if (!takeNumber(line, event.atNs) || !takeNumber(line, event.thread) ||
            (form.hasNumber && !takeNumber(line, event.number))) {
            return std::nullopt;
        }
        if (form.hasText) {
            event.text = takeText(line, form.hasData);
        }
        if (form.hasData) {
            event.data = nlohmann::json::parse(std::exchange(line, {}), nullptr, false);
        }
        const bool isWhole =
            event.data.is_object() && event.text.empty() != form.hasText && line.empty();
        return isWhole ? std::optional(std::move(event)) : std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

std::vector<ModuleEvent> ModuleEvents::read(std::string_view bytes) {
    std::vector<ModuleEvent> events;
    // What is no event was written by the library, to a descriptor that is not its own.
    lines_.add(bytes, [&events](std::string_view line) {
        if (auto event = parseEvent(line)) {
            events.push_back(std::move(*event));
        }
    });
    return events;
}

}  // namespace kavri::conformance
