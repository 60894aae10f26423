// Distinguishes a process from the one that forked it.
//
// A child has copies of its parent's objects, but neither their threads nor the right to
// read from their sockets: a byte that it took would be missing in the parent.
#ifndef KAVRI_CORE_PROCESS_GENERATION_H
#define KAVRI_CORE_PROCESS_GENERATION_H

namespace kavri::core {

// How many forks lie between the first process that used the library and this one. Costs
// a read of a variable.
unsigned processGeneration();

}  // namespace kavri::core

#endif
