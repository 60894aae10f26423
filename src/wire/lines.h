// Lines of `name=value`: the payload of a welcome, a report and an observation.
#ifndef KAVRI_WIRE_LINES_H
#define KAVRI_WIRE_LINES_H

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>

namespace kavri::wire {

class Lines {
  public:
    // Up to this length nothing is allocated later; the memory stays with a clear.
    explicit Lines(std::size_t reservedBytes = 0) { text_.reserve(reservedBytes); }

    void clear() { text_.clear(); }
    const std::string& text() const { return text_; }

    void add(std::string_view name, std::string_view value) {
        text_.append(name).append("=").append(value).append("\n");
    }
    // Several numbers are parted by slashes.
    void add(std::string_view name, std::integral auto first, std::integral auto... others) {
        text_.append(name).append("=");
        addNumber(first);
        ((text_.append("/"), addNumber(others)), ...);
        text_.append("\n");
    }
    // Behind the last line: the beginning of a message's payload.
    void addPayload(std::string_view payload) { text_.append("\n").append(payload); }

  private:
    void addNumber(std::integral auto value) {
        std::array<char, 24> digits;
        const char* const end = std::to_chars(digits.begin(), digits.end(), value).ptr;
        text_.append(std::string_view(digits.begin(), end));
    }

    std::string text_;
};

}  // namespace kavri::wire

#endif
