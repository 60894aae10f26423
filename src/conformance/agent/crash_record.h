// Records how the process ends while the library is at work: by a signal, or because a
// function was called that ends it. The record gets the signal or the exit status and the
// stack of the thread; which call was under way there follows from the lines before.
//
// A frame of the stack is the file of the program or library, and the address within it:
// "/opt/lib/libkavri-core-test.so+0x1a2b". Names are put to it by who reads the record, so
// nothing is needed here that may not be called in a signal handler.
#ifndef KAVRI_CONFORMANCE_AGENT_CRASH_RECORD_H
#define KAVRI_CONFORMANCE_AGENT_CRASH_RECORD_H

namespace kavri::conformance {

// From now on a signal that means a crash is recorded before it has the effect that it had.
void recordCrashes();

// The function is about to end the process with this status. `caller`: where it returns to.
void recordExit(const char* function, int status, const void* caller);

}  // namespace kavri::conformance

#endif
