// The lines in which the probe records what happens:
//
//     call NS TID N FUNCTION JSON       the arguments by name; an initiator by its number
//     return NS TID N JSON              the status, and the values returned
//     deliver NS TID N CALLBACK JSON    the library calls a callback of the module
//     delivered NS TID N                it returned
//     fault NS TID NAME JSON            the chosen fault was injected
//     peer NS TID ok|missing JSON       whether a test service answers
//     left NS TID JSON                  threads and descriptors that the library leaked
//     round NS TID N JSON               what the process holds after a round of all cases
//     breach NS TID N JSON              call or delivery N broke a rule: which, and how
//     crash NS TID SIGNAL JSON          a signal ends the process
//     exit NS TID STATUS JSON           a function that ends the process is called: which
//     stack NS TID JSON                 of the thread that crashed or ends the process
//
// NS is the monotonic clock in nanoseconds, TID the kernel's number of the
// thread, N counts calls and deliveries together, and is 0 for the calls of the peer
// check; that of a round counts rounds. The lines go to the descriptor that
// KAVRI_MODULE_EVENTS names, each with one write: lines of two threads do not mix, and what
// was written before a crash is kept. Where the variable is not set nothing is written. Where
// the descriptor was closed, or has become another file since, the process is ended; see
// channel.h.
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

// The descriptor that a variable names; -1 where it is not set.
int descriptorIn(const char* variable);

bool isRecording();
// Where the lines go; -1: nothing is recorded, or the descriptor is no longer there. May be
// called in a signal handler, once it has been called before.
int eventsDescriptor();
// Ends the process past the probe's own functions for that: the library did not call one.
[[noreturn]] void endProcess(int status);

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

// An address as it is in a line: null stays null here too.
Json pointerText(const void* pointer);

void recordCall(unsigned number, const char* function, const Json& arguments);
void recordReturn(unsigned number, const Json& result);
void recordDeliver(unsigned number, const char* callback, const Json& arguments);
void recordDelivered(unsigned number);
void recordFault(std::string_view name, unsigned number, std::string_view did);
void recordPeer(bool isThere, const Json& details);
// The call or delivery broke a rule of interface_rules.h, in a way that only shows within
// the process.
void recordBreach(std::string_view rule, unsigned number, const std::string& what);

}  // namespace kavri::conformance

#endif
