// The check of options whose value is a number.
#ifndef KAVRI_CLI_NUMBER_CHECK_H
#define KAVRI_CLI_NUMBER_CHECK_H

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <string>

namespace kavri::cli {

// In the form that the parser asks of a check: empty, or what is wrong.
inline CLI::Validator numberFromTo(double least, double most, const char* what) {
    return {[=](const std::string& text) {
                double number = 0;
                const auto [end, error] =
                    std::from_chars(text.data(), text.data() + text.size(), number);
                const bool isNumber = error == std::errc() && end == text.data() + text.size();
                return isNumber && number >= least && number <= most
                           ? std::string()
                           : fmt::format("'{}' is no {} from {} to {}", text, what, least, most);
            },
            ""};
}

}  // namespace kavri::cli

#endif
