// The stacks of a process that hangs, for whoever wants to know why.
#ifndef KAVRI_CLI_STACKS_H
#define KAVRI_CLI_STACKS_H

#include <sys/types.h>

#include <string>

namespace kavri::cli {

// Of all its threads, as the debugger prints them; empty where there is no
// debugger, or it may not look into the process.
std::string stacksOf(pid_t process);

}  // namespace kavri::cli

#endif
