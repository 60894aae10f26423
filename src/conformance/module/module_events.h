// The events of the conformance module, as the agent's libraries write them, a line each.
// NS is the monotonic clock in nanoseconds, TID a thread.
//
// The observer writes the cases and checks:
//
//     began NS TID SUITE/CASE            a case begins
//     passed NS TID FILE(LINE) JSON      a check passed: {"check": its text}
//     failed NS TID FILE(LINE) JSON      one failed: also "message", the framework's,
//                                        and of a comparison "left" and "right"
//     aborted NS TID JSON                an exception ended the case: {"message": which}
//     ended NS TID MICROSECONDS SUITE/CASE
//
// The probe writes the calls of the core library's functions and callbacks; see
// agent/record.h.
//
// Bytes go in as they arrive, events come out.
#ifndef KAVRI_CONFORMANCE_MODULE_MODULE_EVENTS_H
#define KAVRI_CONFORMANCE_MODULE_MODULE_EVENTS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "base/line_buffer.h"

namespace kavri::conformance {

struct ModuleEvent {
    enum class Kind {
        began,
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
        left,
        round,
        breach,
        crash,
        exit,
        stack
    };
    Kind kind = Kind::began;
    std::int64_t atNs = 0;
    int thread = 0;
    // Of the call, delivery or round; of a crash the signal, of an exit the status.
    unsigned number = 0;
    std::string text;  // the case, place, function, callback, fault, or "ok"
    nlohmann::json data = nlohmann::json::object();
};

class ModuleEvents {
  public:
    // Appends the next bytes, and returns the events that they complete. A line of
    // another form is ignored.
    std::vector<ModuleEvent> read(std::string_view bytes);

  private:
    base::LineBuffer lines_;
};

}  // namespace kavri::conformance

#endif
