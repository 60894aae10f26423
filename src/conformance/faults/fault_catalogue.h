// The faults that the probe can put between the conformance module and a core
// library: what each breaks, how, and which cases must detect it.
//
// A fault is one row of a table, in *_faults.cpp. The first of its rules that matches a
// call or delivery applies. So every fault is what its rules say
// and nothing else, and does the same in each run: rules go by what was called before,
// never by the time.
#ifndef KAVRI_CONFORMANCE_FAULTS_FAULT_CATALOGUE_H
#define KAVRI_CONFORMANCE_FAULTS_FAULT_CATALOGUE_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "conformance/agent/calls.h"

namespace kavri::conformance {

// Before the name of a rule of interface_rules.h.
inline constexpr std::string_view warningMark = "warning: ";

// A case that must not pass without more ado, and by what: the text of a check ("left ==
// right", or its one expression), "timeout", "crash", "not run", "record": no check failed,
// but what was recorded is not what a pass must show; or "warning: RULE", of a rule of the
// interface that the record shows to be broken. A case may have several, and each of them
// must be there.
struct Kill {
    std::string_view caseName;  // "suite/case"
    std::string_view how;
};

// What becomes of the calls of a function that `when` matches.
struct CallRule {
    Function function;
    bool (*when)(const Call&);
    kavri_core_status (*instead)(const Call&);  // of the call; or null
    kavri_core_status (*after)(const Call&);    // a call that succeeded; or null
    std::string_view did;                       // in the record
};

// What becomes of the deliveries that `when` matches.
struct DeliveryRule {
    Stream stream;
    bool (*when)(const Delivery&);
    void (*instead)(Delivery);
    std::string_view did;  // in the record
};

struct Fault {
    std::string_view name;               // as in KAVRI_PROBE_FAULT
    std::string_view description;        // what the library then does
    std::string_view clause;             // the rule of the interface that this breaks
    std::string_view survivesBecause{};  // empty where there are kills
    std::vector<Kill> kills{};           // by all cases that are not to pass
    std::vector<CallRule> calls{};
    std::vector<DeliveryRule> deliveries{};
};

// The tables, in the order of the catalogue.
std::vector<Fault> libraryFaults();
std::vector<Fault> requestFaults();
std::vector<Fault> receiveFaults();
std::vector<Fault> responseCallbackFaults();
std::vector<Fault> eventFaults();

std::span<const Fault> faultCatalogue();

std::vector<std::string> namesOfFaults();

// Null where there is none of the name.
const Fault* findFault(std::string_view name);

}  // namespace kavri::conformance

#endif
