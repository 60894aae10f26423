// Every limit of the system that has a default, once, with its reason.
//
// The broker's configuration may change those in Limits; the broker's welcome
// names those that a peer must keep to. Reaching a limit costs the peer that
// reaches it and no other.
#ifndef KAVRI_WIRE_LIMITS_H
#define KAVRI_WIRE_LIMITS_H

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kavri::wire {

inline constexpr std::size_t kibibyte = 1024;
inline constexpr std::size_t mebibyte = 1024 * kibibyte;

// A category, identifier or uuid names something: 64 KiB is room for any name,
// and keeps a peer from using names to get around the payload's limit.
inline constexpr std::size_t fieldLimitBytes = 64 * kibibyte;

// A hello holds a version and a role: a longer frame is refused before the
// handshake, so that an unknown peer cannot make the broker allocate.
inline constexpr std::size_t helloFrameBytes = 4 * kibibyte;

// No configuration may allow a larger payload: one message is held in memory
// as a whole.
inline constexpr std::size_t payloadCeilingBytes = 64 * mebibyte;

struct Limits {
    // Larger payloads are better passed by a file or shared memory.
    std::size_t payloadBytes = 1 * mebibyte;

    // A connection costs a descriptor; services are started with at least as many.
    std::size_t connections = 4096;
    std::size_t connectionsPerUser = 256;

    // The send queue of a peer. Above the high-water mark of three quarters its
    // senders are blocked while it drains; at the limit the peer is closed.
    std::size_t sendQueueBytes = 8 * mebibyte;
    // The memory charged to one user: connections, incomplete frames, names,
    // subscriptions, pending requests and send queues of all the user's programs.
    std::size_t bytesPerUser = 64 * mebibyte;

    // Senders wait for a peer that drains its send queue at least this fast:
    // slower than any program that still works, faster than one that stopped.
    std::size_t drainBytesPerSecond = 1 * mebibyte;
    // A peer that has drained nothing for this long is stalled: its senders no
    // longer wait for it.
    std::chrono::milliseconds stallTime{200};

    // Pending requests: of one initiator, and at one responder.
    std::size_t openRequestsPerInitiator = 65536;
    std::size_t openRequestsPerResponder = 262144;

    // Categories that one connection subscribes to.
    std::size_t subscriptionsPerInitiator = 1024;

    // From the accept of a connection to its hello.
    std::chrono::milliseconds handshakeTime{5000};
    // A peer that drains nothing of its send queue for this long is closed. So is
    // one that leaves a frame incomplete for longer than this plus the time that
    // its bytes so far take at the drain rate.
    std::chrono::milliseconds progressTime{10000};
};

// The socket buffer that is asked of the kernel (which may allow less, and uses
// memory only for bytes in flight): a large payload then passes in few pieces,
// each of which costs a wake-up.
inline constexpr int socketBufferBytes = 2 * mebibyte;

// Messages that the library queues until they are received; above it, further
// ones stay in the socket.
inline constexpr std::size_t libraryQueueBytes = 64 * mebibyte;

inline constexpr unsigned defaultConnectTimeoutMs = 5000;
inline constexpr unsigned defaultSendTimeoutMs = 10000;

// Pauses between the tries of the library's thread to reconnect.
inline constexpr std::chrono::milliseconds firstReconnectPause{10};
inline constexpr std::chrono::milliseconds lastReconnectPause{1000};
// After a connection that broke sooner than this, a pause precedes the next.
inline constexpr std::chrono::milliseconds steadyConnectionTime{1000};

// Frames from this size on are read into memory of their own and passed on
// without a copy; smaller ones are cheaper to copy than to manage.
inline constexpr std::size_t largeFrameBytes = 16 * kibibyte;

}  // namespace kavri::wire

#endif
