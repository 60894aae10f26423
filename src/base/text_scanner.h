// Parsing a text from its front and its back, piece by piece.
#ifndef KAVRI_BASE_TEXT_SCANNER_H
#define KAVRI_BASE_TEXT_SCANNER_H

#include <optional>
#include <string_view>

namespace kavri::base {

// Each takes a piece off `text` and says whether it was there; where it was
// not, the text stays as it is.

inline bool takePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

inline bool takeSuffix(std::string_view& text, std::string_view suffix) {
    if (!text.ends_with(suffix)) {
        return false;
    }
    text.remove_suffix(suffix.size());
    return true;
}

// Takes up to the mark, and the mark, which is not part of what is returned.
inline std::optional<std::string_view> takeUntil(std::string_view& text, std::string_view mark) {
    const size_t end = text.find(mark);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end + mark.size());
    return taken;
}

// The next line, with or without a line break at its end; nothing when the
// text is used up.
inline std::optional<std::string_view> takeLine(std::string_view& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const std::string_view all = text;
    if (const auto line = takeUntil(text, "\n")) {
        return line;
    }
    text = {};
    return all;
}

}  // namespace kavri::base

#endif
