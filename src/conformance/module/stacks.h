// The stacks of a process that hangs.
#ifndef KAVRI_CONFORMANCE_MODULE_STACKS_H
#define KAVRI_CONFORMANCE_MODULE_STACKS_H

#include <sys/types.h>

#include <string>

namespace kavri::conformance {

// Of all its threads, as the debugger prints them; empty where there is no debugger, or
// it may not attach to the process.
std::string stacksOf(pid_t process);

}  // namespace kavri::conformance

#endif
