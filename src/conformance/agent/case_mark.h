// How the observer marks in the module's output where a case begins: with a line of its own
// on both streams, this mark and the case's name. What was printed without a line break
// before it stands in front of the mark.
#ifndef KAVRI_CONFORMANCE_AGENT_CASE_MARK_H
#define KAVRI_CONFORMANCE_AGENT_CASE_MARK_H

#include <string_view>

namespace kavri::conformance {

inline constexpr std::string_view caseMark = "\x1ekavri-case ";

}  // namespace kavri::conformance

#endif
