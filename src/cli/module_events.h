// What the conformance module is doing, as the library that observes it from
// within tells line by line:
//
//     began SUITE/CASE            a case begins
//     reached FILE(LINE)          the place of the check that is made next
//     passed FILE(LINE)           it passed
//     failed FILE(LINE)           it did not
//     aborted                     an exception ended the case
//     ended MICROSECONDS SUITE/CASE
//
// Bytes go in as they arrive, events come out.
#ifndef KAVRI_CLI_MODULE_EVENTS_H
#define KAVRI_CLI_MODULE_EVENTS_H

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::cli {

struct ModuleEvent {
    enum class Kind { began, reached, passed, failed, aborted, ended };
    Kind kind;
    std::string text;                   // the case, or the place
    std::chrono::microseconds time{0};  // that the case took; of `ended`
};

class ModuleEvents {
  public:
    // Takes in the next bytes, and returns the events that they complete. A line
    // of another form, as no observer writes it, is passed over.
    std::vector<ModuleEvent> read(std::string_view bytes);

  private:
    std::string partialLine_;
};

}  // namespace kavri::cli

#endif
