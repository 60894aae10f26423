// Whether there is somebody to talk to: a case that needs nobody passes without a
// broker's test service too, and would then say nothing. Whoever was answered has
// seen it; otherwise one request and its answer tell.
#ifndef KAVRI_PROBE_PEER_CHECK_H
#define KAVRI_PROBE_PEER_CHECK_H

namespace kavri::probe {

// The library received or delivered something.
void notePeerSeen();

// Where nothing was, and KAVRI_PROBE_CHECK_PEER is 1: asks for an echo by the real
// functions, past all faults, once in the process, and records what came of it. To
// be called while the library is down.
void checkPeerUnlessSeen();

}  // namespace kavri::probe

#endif
