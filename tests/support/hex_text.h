// Bytes written down as text: pairs of hexadecimal digits, with blanks and line
// ends wherever they help, and comments from '#' to the end of the line.
#ifndef KAVRI_TESTS_SUPPORT_HEX_TEXT_H
#define KAVRI_TESTS_SUPPORT_HEX_TEXT_H

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace kavri::tests {

inline std::string bytesOfHexText(std::istream& text) {
    std::string digits;
    for (std::string line; std::getline(text, line);) {
        for (const char c : line.substr(0, line.find('#'))) {
            if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
                digits += c;
            } else if (c != ' ') {
                throw std::runtime_error("not hexadecimal: " + line);
            }
        }
    }
    if (digits.size() % 2 != 0) {
        throw std::runtime_error("half a byte is left");
    }
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

inline std::string bytesOfHexFile(const std::filesystem::path& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path.string());
    }
    return bytesOfHexText(file);
}

}  // namespace kavri::tests

#endif
