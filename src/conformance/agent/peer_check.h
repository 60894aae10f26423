// Checks that a test service answers. One case needs no service, so its pass would prove
// nothing where there is none. A response or event that the library received is proof
// enough; otherwise the probe sends one request of its own.
#ifndef KAVRI_CONFORMANCE_AGENT_PEER_CHECK_H
#define KAVRI_CONFORMANCE_AGENT_PEER_CHECK_H

namespace kavri::conformance {

// The library received or delivered something.
void notePeerSeen();

// Where it has not, and KAVRI_PROBE_CHECK_PEER is 1: requests an echo by the library's
// own functions, without any fault, once in the process, and records the result. Call it
// while the library is not initialised.
void checkPeerUnlessSeen();

}  // namespace kavri::conformance

#endif
