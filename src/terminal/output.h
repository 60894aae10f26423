// Standard output of commands that print what others sent: written at once, as it is where
// no terminal shows it, and made harmless where one does.
#ifndef KAVRI_TERMINAL_OUTPUT_H
#define KAVRI_TERMINAL_OUTPUT_H

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kavri::terminal {

using Json = nlohmann::ordered_json;

class Output {
  public:
    bool isTerminal() const { return isTerminal_; }

    // On a terminal with escapes in place of what it would act on, line breaks among them.
    std::string shown(std::string_view bytes) const;

    // False where the reader has left, as `| head` does, and wants no more. Throws
    // CommandFailure for any other failure: somebody misses what was to be printed.
    bool write(std::string_view text) const;
    bool writeLine(const Json& json) const { return write(json.dump() + "\n"); }

  private:
    const bool isTerminal_ = isatty(STDOUT_FILENO) == 1;
};

// Adds a field of any bytes: as `key`, or in Base64 as `key`_base64 where it is not UTF-8.
void addField(Json& object, const std::string& key, std::string_view bytes);

}  // namespace kavri::terminal

#endif
