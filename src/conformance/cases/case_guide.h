// What each case of the conformance module proves, does and asserts, what can make it
// fail, and what the record of a run must hold for a pass to count.
//
// This is the only source of these texts: docs/conformance.md has them too, and a test
// makes its chapter on the cases from them.
#ifndef KAVRI_CONFORMANCE_CASES_CASE_GUIDE_H
#define KAVRI_CONFORMANCE_CASES_CASE_GUIDE_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::conformance {

// What a case does between bringing the library up and down, counted exactly.
struct Required {
    unsigned sends = 0;               // that returned 0
    unsigned responses = 0;           // receives that returned 0, with all that names a response
    unsigned refusedReceives = 0;     // that returned 4
    unsigned responseInstalls = 0;    // and removals, of the response callback
    unsigned responseDeliveries = 0;  // calls of it that returned
    unsigned subscribes = 0;
    unsigned unsubscribes = 0;
    unsigned eventInstalls = 0;  // and removals, of the event callback
    unsigned eventDeliveries = 0;
};

// Each text is one paragraph of Markdown, without line breaks.
struct CaseGuide {
    std::string_view name;  // "suite/case"
    std::string_view proves;
    std::string_view procedure;
    std::string_view asserts;
    std::string_view failures;  // what can make it fail
    Required required;

    std::string_view bareName() const { return name.substr(name.rfind('/') + 1); }
};

// In the order of the module.
std::span<const CaseGuide> caseGuides();

// "suite/case", and each case alone: what a user may write.
std::vector<std::string> namesOfCases();

// By "suite/case" or the case alone; null where there is no such case.
const CaseGuide* findCaseGuide(std::string_view name);

}  // namespace kavri::conformance

#endif
