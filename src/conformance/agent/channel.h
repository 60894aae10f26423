// What the agent and the kit agree on beside the lines of events.
#ifndef KAVRI_CONFORMANCE_AGENT_CHANNEL_H
#define KAVRI_CONFORMANCE_AGENT_CHANNEL_H

#include <string_view>

namespace kavri::conformance {

// How the observer marks in the module's output where a case begins: with a line of its own
// on both streams, this mark and the case's name. What was printed without a line break
// before it stands in front of the mark.
inline constexpr std::string_view caseMark = "\x1ekavri-case ";

// The exit status with which the agent ends the module where the descriptor for the events
// was closed: nothing that happens from then on could be judged.
inline constexpr int channelClosedStatus = 250;

}  // namespace kavri::conformance

#endif
