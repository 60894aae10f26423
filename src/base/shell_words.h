// Words of a command line, written so that a shell reads the same words back.
#ifndef KAVRI_BASE_SHELL_WORDS_H
#define KAVRI_BASE_SHELL_WORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace kavri::base {

// The word itself where it means nothing else to a shell, otherwise in quotes. Control
// characters become escapes ($'\x1b'), so that the text can be printed and pasted.
std::string shellQuoted(std::string_view word);

// Each word quoted, with blanks between them.
std::string shellCommand(const std::vector<std::string>& words);

}  // namespace kavri::base

#endif
