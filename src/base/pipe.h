// Pipes whose ends have owners, and the one way in which they are read here.
#ifndef KAVRI_BASE_PIPE_H
#define KAVRI_BASE_PIPE_H

#include <string>

#include "base/descriptor.h"

namespace kavri::base {

struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;

    // Both ends are closed in programs that are executed; `flags` are further ones of
    // pipe2. Throws std::system_error.
    static Pipe make(int flags = 0);
};

// Has read() return at once when there is nothing to read. Throws std::system_error.
void setNonBlocking(const Descriptor& source);

// Appends what there is to read, without waiting, and closes the descriptor at the end
// of its data. Reads at most as much as a pipe can hold: all that was written before the
// call, and yet a bounded amount when the writer never stops.
void readAvailable(Descriptor& source, std::string& into);

}  // namespace kavri::base

#endif
