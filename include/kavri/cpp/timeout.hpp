// How long a receive may wait.
#ifndef KAVRI_CPP_TIMEOUT_HPP
#define KAVRI_CPP_TIMEOUT_HPP

#include <chrono>
#include <limits>

namespace kavri {

// Made from any std::chrono duration, which is rounded up to whole milliseconds. Zero and
// less does not wait, so what is left until a deadline can be passed as it is. The longest
// is INT_MAX ms, 24 days: what is above that waits so long, except for `forever`.
class Timeout {
  public:
    template <typename Count, typename Period>
    constexpr Timeout(std::chrono::duration<Count, Period> time) noexcept
        : ms_(rounded(std::chrono::duration<double, std::milli>(time).count())) {}

    static constexpr Timeout unlimited() noexcept { return Timeout(); }
    constexpr bool isUnlimited() const noexcept { return ms_ < 0; }

    // As the C functions take it: -1 is without limit.
    constexpr int milliseconds() const noexcept { return ms_; }

  private:
    constexpr Timeout() noexcept = default;

    // 0 of what is no number.
    static constexpr int rounded(double ms) noexcept {
        constexpr int longest = std::numeric_limits<int>::max();
        if (!(ms > 0)) {
            return 0;
        }
        if (ms >= longest) {
            return longest;
        }
        const int whole = static_cast<int>(ms);
        return whole < ms ? whole + 1 : whole;
    }

    int ms_ = -1;
};

// Waits without limit.
inline constexpr Timeout forever = Timeout::unlimited();

}  // namespace kavri

#endif
