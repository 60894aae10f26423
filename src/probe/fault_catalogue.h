// The faults that the probe can put between the conformance module and a core
// library, and which cases must notice each of them.
//
// It is what the module promises, written out: a fault that no case notices says
// why none can.
#ifndef KAVRI_PROBE_FAULT_CATALOGUE_H
#define KAVRI_PROBE_FAULT_CATALOGUE_H

#include <span>
#include <string_view>
#include <vector>

namespace kavri::probe {

// A case that must not pass, and by what: the text of a check ("left == right",
// or its one expression), "timeout", "crash", "not run", or "record": no check
// failed, but what was recorded is not what a pass must show. A case may have
// several, and each of them must be there.
struct Notice {
    std::string_view caseName;  // "suite/case"
    std::string_view how;
};

struct Fault {
    std::string_view name;              // as in KAVRI_PROBE_FAULT
    std::string_view description;       // what the library then does
    std::string_view clause;            // the rule that this breaks
    std::string_view unnoticedBecause;  // or empty, where there are notices
    std::vector<Notice> notices;        // by all cases that are not to pass
};

std::span<const Fault> faults();

// Null where there is none of the name.
const Fault* findFault(std::string_view name);

}  // namespace kavri::probe

#endif
