// The payload that a command line names.
#ifndef KAVRI_TERMINAL_PAYLOAD_H
#define KAVRI_TERMINAL_PAYLOAD_H

#include <string>

namespace kavri::terminal {

// The argument itself or, for "-", what standard input has. Throws CommandFailure where that
// cannot be read, holds a NUL, which no field can, or is longer than any broker allows.
std::string readPayload(const std::string& argument);

}  // namespace kavri::terminal

#endif
