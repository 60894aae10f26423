// The lines in which the probe records what happens:
//
//     call NS TID N FUNCTION JSON       the arguments by name; handles left out
//     return NS TID N JSON              the status, and the values returned
//     deliver NS TID N CALLBACK JSON    the library calls a callback of the module
//     delivered NS TID N                it returned
//     fault NS TID NAME JSON            the chosen fault was injected
//     peer NS TID ok|missing JSON       whether a test service answers
//     usage NS TID JSON                 what the process holds
//     left NS TID JSON                  threads and descriptors that the library leaked
//
// NS is the monotonic clock in nanoseconds, TID the kernel's number of the
// thread, N counts calls and deliveries together, and is 0 for the calls of the peer
// check. The lines go to the descriptor that KAVRI_MODULE_EVENTS names, each with one
// write: lines of two threads do not mix, and what was written before a crash is kept.
// Where the variable is not set nothing is written. Where the descriptor was closed, or has
// become another file since, the process is ended; see channel.h.
#ifndef KAVRI_CONFORMANCE_AGENT_RECORD_H
#define KAVRI_CONFORMANCE_AGENT_RECORD_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kavri::conformance {

// Keeps the order in which its members were given: that of the parameters.
using Json = nlohmann::ordered_json;

inline constexpr std::size_t textLimitBytes = 200;

// Empty where the variable is not set.
std::string environmentVariable(const char* name);

bool isRecording();

// Writes one line: the word, the time and the thread, and the rest. The observer writes
// its lines by it too.
void tell(std::string_view word, const std::string& rest);
// The JSON as it is in a line; bytes that are no UTF-8 are replaced.
std::string dumped(const Json& json);

// The next N, from 1.
unsigned nextNumber();

// A text as it is in a line: null stays null, and a long one is cut, so that four texts
// fit into a line whatever the limit. Of a text of the library no more is read than that.
Json shortened(const char* text);
Json shortened(const std::string& text, std::size_t limitBytes = textLimitBytes);

void recordCall(unsigned number, const char* function, const Json& arguments);
void recordReturn(unsigned number, const Json& result);
void recordDeliver(unsigned number, const char* callback, const Json& arguments);
void recordDelivered(unsigned number);
void recordFault(std::string_view name, unsigned number, std::string_view did);
void recordPeer(bool isThere, const Json& details);
// Notes what the process holds, before the library is initialised.
void noteUsage();
// Records what it holds, and what of it the library leaked since.
void recordUsage();

}  // namespace kavri::conformance

#endif
