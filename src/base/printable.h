// A text of unknown origin as it may be shown anywhere, a terminal included.
#ifndef KAVRI_BASE_PRINTABLE_H
#define KAVRI_BASE_PRINTABLE_H

#include <string>
#include <string_view>

namespace kavri::base {

// On one line: line breaks, control characters, characters that change the direction of the
// text, and bytes that are no UTF-8 become escapes. Tabs stay.
std::string printable(std::string_view text);

bool isUtf8(std::string_view text);

}  // namespace kavri::base

#endif
