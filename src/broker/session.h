// One connection as the broker sees it, without its socket: who it is, what it
// may do, its send queue, and what is left of its input.
//
// A session lives in the table until the end of the round in which it was
// closed; others name it by SessionId, which no later session shares.
#ifndef KAVRI_BROKER_SESSION_H
#define KAVRI_BROKER_SESSION_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "broker/account.h"
#include "broker/buffer.h"
#include "broker/congestion.h"
#include "broker/policy.h"
#include "broker/send_queue.h"

namespace kavri::broker {

struct SessionId {
    std::uint32_t index = 0;
    std::uint32_t generation = 0;
    bool operator==(const SessionId&) const = default;
};

enum class Role : std::uint8_t { unknown, initiator, responder };

// What one user's sessions take together.
struct UserAccount {
    std::size_t connections = 0;
    Account memory;
};

struct Category;

struct Subscription {
    Category* category = nullptr;
    Charge charge;
};

// Marks the end of a list of pending requests.
inline constexpr std::uint32_t noRequest = UINT32_MAX;

struct Session {
    // What a connection costs for being there.
    static constexpr std::size_t fixedBytes = 1024;

    Session(SessionId itsId, uid_t itsUser, UserAccount& itsAccount, BufferPool& pool)
        : id(itsId),
          user(itsUser),
          account(itsAccount),
          sendQueue(pool, itsAccount.memory),
          charge(itsAccount.memory, fixedBytes) {}

    const SessionId id;
    const uid_t user;
    UserAccount& account;
    pid_t process = 0;
    int descriptor = -1;
    std::uint32_t interest = 0;  // the events that it is polled for
    Role role = Role::unknown;   // unknown until its hello

    bool isClosing = false;
    bool listedForWriting = false;  // the router put something into the send queue
    bool frameDeadlineIsSet = false;
    bool isLetIn = false;  // it is this one's turn as soon as its large request is complete
    SendQueue sendQueue;
    std::unique_ptr<Congestion> congestion;  // of the send queue

    // The session that this one waits for; it is not read from until it is resumed.
    Session* blockedOn = nullptr;
    WaitingLine* line = nullptr;  // and its neighbours there
    Session* previousWaiting = nullptr;
    Session* nextWaiting = nullptr;
    bool isBlocked() const { return blockedOn != nullptr; }

    // Input that could not be handled yet: a large frame that is coming in, then
    // bytes that wait for the rest of their frame, or for another session.
    BlockRef large;
    BlockRef backlog;
    std::uint32_t largeBytes = 0;  // the whole frame
    std::uint32_t largeFilled = 0;
    std::uint32_t backlogOffset = 0;
    std::uint32_t backlogBytes = 0;
    std::uint32_t typicalFrameBytes = 64;  // of its latest input
    Charge charge;  // for the session itself, its input and its pending requests
    // When the frame began that is still incomplete; zero when that is not known yet.
    Clock::time_point frameBegan;

    bool hasPartOfFrame() const { return static_cast<bool>(large) || static_cast<bool>(backlog); }
    std::size_t bytesOfPart() const { return large ? largeFilled : backlogBytes; }
    char* backlogBegin() const { return backlog->bytes() + backlogOffset; }
    // Both end the charge; what is in the backlog is the caller's from then on.
    void dropLarge() {
        charge.shrink(large->capacity());
        large = {};
        isLetIn = false;
    }
    BlockRef takeBacklog() {
        charge.shrink(backlog->capacity());
        return std::move(backlog);
    }

    // Of an initiator.
    std::uint32_t firstSent = noRequest;
    std::uint32_t pendingRequests = 0;
    std::vector<Subscription> subscriptions;
    // Of a responder.
    Category* served = nullptr;
    std::uint32_t firstRequest = noRequest;
    std::uint32_t requestsInFlight = 0;
    // Requests whose initiators left before they were answered.
    std::uint32_t abandonedRequests = 0;
};

}  // namespace kavri::broker

#endif
