// Texts as the C functions take and give them: pointers to bytes that end with a NUL.
#ifndef KAVRI_CPP_TEXT_HPP
#define KAVRI_CPP_TEXT_HPP

#include <cstddef>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>

namespace kavri {

// Refers to a text that somebody else owns, without a copy, like std::string_view; but what
// it refers to ends with a NUL, so the C functions take it as it is. It may be null: such is
// the payload of a response without one. As long as the text lives, any thread may use it.
class TextView {
  public:
    constexpr TextView() noexcept = default;
    constexpr TextView(std::nullptr_t) noexcept {}
    constexpr TextView(const char* text) noexcept : text_(text) {}
    // The string up to its first NUL, as c_str() gives it.
    TextView(const std::string& text) noexcept : text_(text.c_str()) {}

    constexpr bool isNull() const noexcept { return text_ == nullptr; }
    // Null where it is.
    constexpr const char* c_str() const noexcept { return text_; }
    // Empty where it is null. Counts the bytes up to the NUL each time.
    constexpr std::string_view view() const noexcept {
        return isNull() ? std::string_view() : std::string_view(text_);
    }
    constexpr operator std::string_view() const noexcept { return view(); }
    // A copy.
    std::string str() const { return std::string(view()); }

    // Null equals null alone.
    friend bool operator==(TextView left, TextView right) noexcept {
        return left.isNull() || right.isNull() ? left.isNull() == right.isNull()
                                               : std::strcmp(left.text_, right.text_) == 0;
    }
    friend bool operator!=(TextView left, TextView right) noexcept { return !(left == right); }
    friend std::ostream& operator<<(std::ostream& out, TextView text) { return out << text.view(); }

  private:
    const char* text_ = nullptr;
};

}  // namespace kavri

#endif
