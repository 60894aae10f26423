// How a program ended, in words that follow its name: "ended with status 1",
// "was ended by SIGSEGV".
#ifndef KAVRI_PROCESS_EXIT_TEXT_H
#define KAVRI_PROCESS_EXIT_TEXT_H

#include <string.h>

#include <string>

#include "process/child_process.h"

namespace kavri::process {

inline std::string exitText(const ExitState& exit) {
    if (exit.signal == 0) {
        return "ended with status " + std::to_string(exit.code);
    }
    const char* name = sigabbrev_np(exit.signal);
    const std::string number = std::to_string(exit.signal);
    return "was ended by " + (name != nullptr ? "SIG" + std::string(name) : "signal " + number);
}

}  // namespace kavri::process

#endif
