// How much the interface demands of what a case, or a check in it, looks at:
//
//   must    the interface promises it of every library, and a program cannot do without
//   should  the interface promises less, or a program can do without; a good library has it
//   may     optional: only convenient for a program
//
// A run can be judged by a level: cases below it are not run, and a check below it that
// fails does not fail its case.
#ifndef KAVRI_CONFORMANCE_CASES_REQUIREMENTS_H
#define KAVRI_CONFORMANCE_CASES_REQUIREMENTS_H

#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::conformance {

// From the least demanding to the most.
enum class Level { may, should, must };
std::string_view levelText(Level level);  // "must", …
std::optional<Level> levelNamed(std::string_view text);

struct CheckRequirement {
    std::string_view text;  // as the module prints the check
    Level level = Level::must;
};

struct CaseRequirement {
    std::string_view name;  // "suite/case"
    Level level = Level::must;
    std::vector<CheckRequirement> checks;
};

// In the order of the module.
std::span<const CaseRequirement> requirements();

std::span<const CheckRequirement> checksOf(std::string_view caseName);

// "must" of what is not in the table.
Level levelOf(std::string_view caseName);
Level levelOf(std::string_view caseName, std::string_view check);

// The names whose case is at that level or above it. Throws CommandFailure where none is.
std::vector<std::string> atLevel(const std::vector<std::string>& names, Level level);

// The table, for the JSON report.
nlohmann::json requirementsJson();

}  // namespace kavri::conformance

#endif
