// The cases of the conformance module, as it lists them itself, and the selection of
// cases by patterns.
#ifndef KAVRI_CONFORMANCE_CASES_CASE_LISTING_H
#define KAVRI_CONFORMANCE_CASES_CASE_LISTING_H

#include <string>
#include <string_view>
#include <vector>

namespace kavri::conformance {

// The names of all cases, "suite/case", from the module's listing in the form
// of a graph ("DOT"), in its order. Other output around the graph, as a library may
// print it, is ignored.
std::vector<std::string> casesInListing(std::string_view listing);

// Whether the case, or suite and case, matches one of the patterns, or there is none.
bool isSelected(const std::string& name, const std::vector<std::string>& patterns);

// Those of the names whose case, or suite and case, match one of the patterns;
// all when there is no pattern. Throws CommandFailure where a pattern matches none.
std::vector<std::string> selectCases(const std::vector<std::string>& names,
                                     const std::vector<std::string>& patterns);

}  // namespace kavri::conformance

#endif
