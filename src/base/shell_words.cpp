// Three forms: plain, '…', and $'…' for control characters; see shell_words.h.
#include "base/shell_words.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kavri::base {

namespace {

constexpr std::string_view plainCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./=,:";

bool isControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

std::string inQuotes(std::string_view word) {
    std::string result = "'";
    for (const char character : word) {
        result += character == '\'' ? "'\\''" : std::string(1, character);
    }
    return result + "'";
}

std::string withEscapes(std::string_view word) {
    std::string result = "$'";
    for (const char character : word) {
        if (isControl(character)) {
            std::array<char, 5> escape{};
            std::snprintf(escape.data(), escape.size(), "\\x%02x",
                          static_cast<unsigned char>(character));
            result += escape.data();
        } else {
            result += character == '\'' || character == '\\' ? "\\" : "";
            result += character;
        }
    }
    return result + "'";
}

}  // namespace

std::string shellQuoted(std::string_view word) {
    if (std::ranges::any_of(word, isControl)) {
        return withEscapes(word);
    }
    const bool isPlain = word.find_first_not_of(plainCharacters) == std::string_view::npos;
    return isPlain && !word.empty() ? std::string(word) : inQuotes(word);
}

std::string shellCommand(const std::vector<std::string>& words) {
    std::string command;
    for (const std::string& word : words) {
        command += (command.empty() ? "" : " ") + shellQuoted(word);
    }
    return command;
}

}  // namespace kavri::base
