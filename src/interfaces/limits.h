// Every limit of the system that has a default, once, with its reason.
//
// The broker's configuration may change those in Limits; what a connection is
// granted is told to it in the broker's welcome. A limit that is reached never
// costs anybody but the peer that reached it.
#ifndef KAVRI_INTERFACES_LIMITS_H
#define KAVRI_INTERFACES_LIMITS_H

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kavri::interfaces {

inline constexpr std::size_t kibibyte = 1024;
inline constexpr std::size_t mebibyte = 1024 * kibibyte;

// A category, identifier or uuid names something: 64 KiB is room for any name,
// and keeps a peer from using names to get around the payload's limit.
inline constexpr std::size_t fieldLimitBytes = 64 * kibibyte;

// A hello holds a version and a role; nothing longer is taken in from a peer that
// has not said who it is.
inline constexpr std::size_t helloFrameBytes = 4 * kibibyte;

// No configuration may allow a larger payload: one message is held in memory
// as a whole.
inline constexpr std::size_t payloadCeilingBytes = 64 * mebibyte;

struct Limits {
    // Payloads above this are better passed by a file or shared memory.
    std::size_t payloadBytes = 1 * mebibyte;

    // A connection costs a descriptor; services are started with at least as many.
    std::size_t connections = 4096;
    std::size_t connectionsPerUser = 256;

    // What is queued for a peer that does not read. From three quarters on its
    // senders are blocked while it drains; at the limit it is closed.
    std::size_t sendQueueBytes = 8 * mebibyte;
    // All that is held for one user: the connections, incomplete frames, names,
    // subscriptions, pending requests and send queues of all his programs.
    std::size_t bytesPerUser = 64 * mebibyte;

    // A peer that takes what is queued for it at least this fast is waited for:
    // slower than any program that still works, faster than one that stopped.
    std::size_t drainBytesPerSecond = 1 * mebibyte;
    // How long a peer may take nothing before nobody waits for it any more.
    std::chrono::milliseconds stallTime{200};

    // Requests without an answer: of one initiator, and at one responder.
    std::size_t openRequestsPerInitiator = 65536;
    std::size_t openRequestsPerResponder = 262144;

    // Categories that one connection subscribes to.
    std::size_t subscriptionsPerInitiator = 1024;

    // A peer that connects has this long to say hello.
    std::chrono::milliseconds handshakeTime{5000};
    // A peer that takes nothing of its send queue for this long is closed, and so is
    // one that leaves a frame incomplete this long beyond the time that the bytes
    // it did send take at the drain rate.
    std::chrono::milliseconds progressTime{10000};
};

// What is asked of the kernel as room between two ends of a connection (it may
// grant less, and takes memory only for what is under way): a large payload then
// goes through in few pieces, each of which costs a wake-up.
inline constexpr int socketBufferBytes = 2 * mebibyte;

// What the library holds for a caller who does not receive; beyond it the
// library leaves further messages in the socket.
inline constexpr std::size_t libraryQueueBytes = 64 * mebibyte;

inline constexpr unsigned defaultConnectTimeoutMs = 5000;
inline constexpr unsigned defaultSendTimeoutMs = 10000;

// Pauses between the library's tries to connect again on its own thread.
inline constexpr std::chrono::milliseconds firstReconnectPause{10};
inline constexpr std::chrono::milliseconds lastReconnectPause{1000};
// A connection that broke earlier did not last: the next one is made after a pause.
inline constexpr std::chrono::milliseconds steadyConnectionTime{1000};

// Frames from this size on are read into a buffer of their own and handed on
// without being copied; smaller ones are cheaper to copy than to manage.
inline constexpr std::size_t largeFrameBytes = 16 * kibibyte;

}  // namespace kavri::interfaces

#endif
