// The lines in which the probe tells what happens:
//
//     call NS TID N FUNCTION JSON       the arguments by name; handles left out
//     return NS TID N JSON              the status, and what was handed out
//     deliver NS TID N CALLBACK JSON    the library calls a callback of the module
//     delivered NS TID N                it returned
//     fault NS TID NAME JSON            the chosen fault broke something
//     peer NS TID ok|missing JSON       whether a broker and a service are there
//     usage NS TID JSON                 what the process holds
//     left NS TID JSON                  threads and descriptors that the library
//                                       did not give back
//
// NS is the monotonic clock in nanoseconds, TID the kernel's number of the
// thread, N counts calls and deliveries together, and is 0 for the calls with which
// the probe looks for the test service. They go to the descriptor that
// KAVRI_MODULE_EVENTS names, each with one write: lines of two threads do not
// mix, and what was written before a crash is there after it. Where the variable
// is not set nothing is written.
#ifndef KAVRI_PROBE_RECORD_H
#define KAVRI_PROBE_RECORD_H

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kavri::probe {

// Keeps the order in which its members were given: that of the parameters.
using Json = nlohmann::ordered_json;

// Empty where the variable is not set.
std::string environmentVariable(const char* name);

bool isRecording();

// One line: the word, the time and the thread, and the rest. The tool's observer,
// which stands beside the probe in the module, writes its lines by it too.
void tell(std::string_view word, const std::string& rest);
// As it stands in a line: any bytes; those that are no UTF-8 are replaced.
std::string dumped(const Json& json);

// The next N, from 1.
unsigned nextNumber();

// A text as it stands in a line: null stays null, and a long one is cut, so that four
// texts fit into a line whatever the limit.
Json shortened(const char* text, std::size_t limitBytes = 200);

void recordCall(unsigned number, const char* function, const Json& arguments);
void recordReturn(unsigned number, const Json& result);
void recordDeliver(unsigned number, const char* callback, const Json& arguments);
void recordDelivered(unsigned number);
void recordFault(std::string_view name, unsigned number, std::string_view did);
void recordPeer(bool isThere, const Json& details);
// What the process holds; compared with what it held when the library was brought
// up last, if more.
void noteUsage();
void recordUsage();

}  // namespace kavri::probe

#endif
