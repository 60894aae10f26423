// Cutting texts that somebody else makes, and that may be of any length.
#ifndef KAVRI_BASE_BOUNDED_TEXT_H
#define KAVRI_BASE_BOUNDED_TEXT_H

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace kavri::base {

// Marks that a text was truncated: "… (17 bytes more)".
inline std::string cutMark(std::size_t bytesMore) {
    return "… (" + std::to_string(bytesMore) + (bytesMore == 1 ? " byte more)" : " bytes more)");
}

// The text, or where it is longer than the limit its beginning and the mark. A character of
// several bytes is not divided. Of a text that is itself the beginning of another, `wholeBytes`
// is the length of that.
inline std::string bounded(std::string_view text, std::size_t limitBytes,
                           std::size_t wholeBytes = 0) {
    wholeBytes = std::max(wholeBytes, text.size());
    if (wholeBytes <= limitBytes) {
        return std::string(text);
    }
    limitBytes = std::min(limitBytes, text.size());
    constexpr std::size_t longestCharacter = 4;
    const auto continues = [&text](std::size_t at) {
        return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
    };
    std::size_t kept = limitBytes;
    while (kept > 0 && limitBytes - kept < longestCharacter && continues(kept)) {
        --kept;
    }
    return std::string(text.substr(0, kept)) + cutMark(wholeBytes - kept);
}

}  // namespace kavri::base

#endif
