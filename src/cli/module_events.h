// What the conformance module is doing, as the libraries that are loaded into it
// tell, line by line. NS is the monotonic clock in nanoseconds, TID a thread.
//
// The observer, of the cases and checks:
//
//     began NS TID SUITE/CASE            a case begins
//     reached NS TID FILE(LINE)          the place of the check that is made next
//     passed NS TID FILE(LINE) JSON      it passed: {"check": its text}
//     failed NS TID FILE(LINE) JSON      it did not: also "left" and "right"
//     aborted NS TID                     an exception ended the case
//     ended NS TID MICROSECONDS SUITE/CASE
//
// The probe, of the calls of the core library's functions and callbacks, which it
// counts together from 1; 0 are those with which it looks for the test service:
//
//     call NS TID N FUNCTION JSON        a call begins: its arguments
//     return NS TID N JSON               it ends: {"status": ...} and what it stored
//     deliver NS TID N response|event JSON   the library calls a callback
//     delivered NS TID N                 which has returned
//     fault NS TID NAME JSON             something was broken on demand
//     peer NS TID ok|missing JSON        whether the test service answers
//     usage NS TID JSON                  what the process holds
//
// Bytes go in as they arrive, events come out.
#ifndef KAVRI_CLI_MODULE_EVENTS_H
#define KAVRI_CLI_MODULE_EVENTS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::cli {

struct ModuleEvent {
    enum class Kind {
        began,
        reached,
        passed,
        failed,
        aborted,
        ended,
        call,
        returned,
        deliver,
        delivered,
        fault,
        peer,
        usage
    };
    Kind kind = Kind::began;
    std::int64_t atNs = 0;
    int thread = 0;
    unsigned number = 0;  // of the call or delivery
    std::string text;     // the case, place, function, callback, fault, or "ok"
    nlohmann::json data = nlohmann::json::object();
};

class ModuleEvents {
  public:
    // Takes in the next bytes, and returns the events that they complete. A line
    // of another form, as neither writes it, is passed over.
    std::vector<ModuleEvent> read(std::string_view bytes);

  private:
    std::string partialLine_;
};

}  // namespace kavri::cli

#endif
