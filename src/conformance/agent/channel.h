// What the agent and the kit agree on beside the lines of events.
#ifndef KAVRI_CONFORMANCE_AGENT_CHANNEL_H
#define KAVRI_CONFORMANCE_AGENT_CHANNEL_H

#include <string_view>

namespace kavri::conformance {

// Where a case begins, the observer prints a line with this mark and the case's name to
// standard output and standard error. Where the output of the case before did not end with a
// line break, the mark is not at the start of its line.
inline constexpr std::string_view caseMark = "\x1ekavri-case ";

// The exit status with which the agent ends the module where the descriptor for the events
// was closed: nothing that happens from then on could be judged.
inline constexpr int channelClosedStatus = 250;

}  // namespace kavri::conformance

#endif
