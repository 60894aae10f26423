// What the module printed in one case: made harmless, and no more of it than a report can
// bear.
#ifndef KAVRI_CONFORMANCE_MODULE_CASE_OUTPUT_H
#define KAVRI_CONFORMANCE_MODULE_CASE_OUTPUT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kavri::conformance {

class CaseOutput {
  public:
    static constexpr std::size_t limitBytes = 65536;

    // Adds a line, and returns it as it is to be shown; nothing once there is too much.
    std::optional<std::string> add(std::string_view line);

    // All lines; at the end how much was left out.
    std::string text() const;

  private:
    std::string text_;
    std::size_t leftOutBytes_ = 0;
};

}  // namespace kavri::conformance

#endif
