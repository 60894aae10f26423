// What the process holds: threads, descriptors and memory. Recorded after each round, and
// compared, after each case, with what was held before the library was initialised.
#ifndef KAVRI_CONFORMANCE_AGENT_HOLDING_H
#define KAVRI_CONFORMANCE_AGENT_HOLDING_H

#include <cstddef>

namespace kavri::conformance {

struct Holding {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    std::size_t residentKiB = 0;
    std::size_t mappedKiB = 0;  // writable and private, touched or not

    static Holding now();
};

// Notes what the process holds, before the library is initialised.
void noteHolding();
// Records what of it the library has left behind since.
void recordLeft();
// Records what it holds after a round of all cases.
void recordRound(unsigned number);

}  // namespace kavri::conformance

#endif
