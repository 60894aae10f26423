// One connection as the broker sees it, without its socket: who it is, what it
// was granted, what waits for it, and what is left of its input.
//
// A session lives in the table until the end of the round in which it was
// closed; others name it by SessionId, which no later session shares.
#ifndef KAVRI_BROKER_SESSION_H
#define KAVRI_BROKER_SESSION_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "broker/buffer.h"
#include "broker/policy.h"
#include "broker/send_queue.h"

namespace kavri::broker {

using Clock = std::chrono::steady_clock;

struct SessionId {
    std::uint32_t index = 0;
    std::uint32_t generation = 0;
    bool operator==(const SessionId&) const = default;
};

enum class Role : std::uint8_t { unknown, initiator, responder };

// What one user's sessions take together.
struct UserAccount {
    std::size_t connections = 0;
    std::size_t sendQueueBytes = 0;
};

struct Category;

// Marks the end of a responder's list of open requests.
inline constexpr std::uint32_t noRequest = UINT32_MAX;

struct Session {
    Session(SessionId itsId, uid_t itsUser, UserAccount& itsAccount, BufferPool& pool)
        : id(itsId),
          user(itsUser),
          account(itsAccount),
          sendQueue(pool, itsAccount.sendQueueBytes) {}

    const SessionId id;
    const uid_t user;
    UserAccount& account;
    pid_t process = 0;
    int descriptor = -1;
    std::uint32_t interest = 0;  // the events that it is polled for
    Role role = Role::unknown;   // unknown until its hello

    SendQueue sendQueue;
    bool listedForWriting = false;    // the router put something into the sendQueue
    Clock::time_point lastProgress;   // when the peer last took something
    bool watched = false;             // a deadline for its progress is set
    bool patienceOver = false;        // others no longer wait until it takes more
    std::vector<SessionId> heldBack;  // those that wait until it takes more

    // Input that could not be handled yet: a large frame that is coming in, then
    // bytes that wait for the rest of their frame, or for another session.
    BlockRef large;
    std::size_t largeBytes = 0;  // the whole frame
    std::size_t largeFilled = 0;
    BlockRef backlog;
    std::size_t backlogBytes = 0;
    bool isHeldBack = false;  // not read from

    // Of an initiator.
    std::size_t pendingRequests = 0;
    std::vector<Category*> subscriptions;
    // Of a responder.
    Category* served = nullptr;
    std::uint32_t firstRequest = noRequest;
    std::size_t requestsInFlight = 0;

    bool isClosing = false;
};

}  // namespace kavri::broker

#endif
