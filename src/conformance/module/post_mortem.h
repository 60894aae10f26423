// What the record says of a module that crashed, hangs or was killed: during which call or
// callback, on whose thread, and after which check.
#ifndef KAVRI_CONFORMANCE_MODULE_POST_MORTEM_H
#define KAVRI_CONFORMANCE_MODULE_POST_MORTEM_H

#include <cstdint>
#include <string>

#include "conformance/module/run_record.h"
#include "process/child_process.h"

namespace kavri::conformance {

// Of a module that ended and should not have: how, and where. `exit`: as the kernel tells it,
// for a process whose last lines say nothing of its end.
std::string crashText(const RunRecord& record, const process::ExitState& exit);

// The stack of the thread that ended it; empty where it was not recorded.
std::string crashStack(const RunRecord& record);

// Of a case under way that is cut off at `nowNs` because nothing happens any more.
HangReport hangReport(const RunRecord& record, std::int64_t nowNs);

// Where the case under way is: ", in F with {…}; the last check that passed: …".
std::string placeUnderWay(const RunRecord& record);

}  // namespace kavri::conformance

#endif
