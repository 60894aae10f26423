// Escaping what a terminal would obey, or could not show; see printable.h.
#include "base/printable.h"

#include <cstddef>

namespace kavri::base {

namespace {

struct Character {
    char32_t code = 0;
    std::size_t bytes = 0;  // 0: no UTF-8
};

unsigned byteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// The first character of the text.
Character firstOf(std::string_view text) {
    const unsigned first = byteAt(text, 0);
    if (first < 0x80) {
        return {first, 1};
    }
    const std::size_t bytes = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < bytes) {
        return {};
    }
    char32_t code = first & (0x7fU >> bytes);
    for (std::size_t i = 1; i < bytes; ++i) {
        if ((byteAt(text, i) & 0xc0U) != 0x80U) {
            return {};
        }
        code = (code << 6U) | (byteAt(text, i) & 0x3fU);
    }
    const bool isOverlong = (bytes == 3 && code < 0x800) || (bytes == 4 && code < 0x10000);
    const bool isNoCharacter = (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff;
    return isOverlong || isNoCharacter ? Character{} : Character{code, bytes};
}

bool isControl(char32_t code) {
    return (code < 0x20 && code != U'\t') || (code >= 0x7f && code <= 0x9f) ||
           (code >= 0x200e && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
           (code >= 0x2066 && code <= 0x2069);
}

// In so many hexadecimal digits.
std::string escaped(char kind, unsigned number, unsigned digits) {
    std::string escape = {'\\', kind};
    while (digits-- > 0) {
        escape += "0123456789abcdef"[number >> 4 * digits & 0xfU];
    }
    return escape;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto [code, bytes] = firstOf(text);
        if (bytes == 0) {
            result += escaped('x', byteAt(text, 0), 2);
        } else if (code == U'\n') {
            result += "\\n";
        } else if (isControl(code)) {
            const auto number = static_cast<unsigned>(code);
            result += code < 0x80 ? escaped('x', number, 2) : escaped('u', number, 4);
        } else {
            result += text.substr(0, bytes);
        }
        text.remove_prefix(bytes == 0 ? 1 : bytes);
    }
    return result;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t bytes = firstOf(text).bytes;
        if (bytes == 0) {
            return false;
        }
        text.remove_prefix(bytes);
    }
    return true;
}

}  // namespace kavri::base
