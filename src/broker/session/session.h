// One connection as the broker sees it, without its socket: who it is, what it
// may do, its send queue, and what is left of its input.
//
// A session lives in the table until the end of the round in which it was
// closed; others name it by SessionId, which no later session shares.
#ifndef KAVRI_BROKER_SESSION_SESSION_H
#define KAVRI_BROKER_SESSION_SESSION_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "broker/memory/account.h"
#include "broker/memory/buffer.h"
#include "broker/memory/send_queue.h"
#include "broker/session/congestion.h"
#include "broker/session/monitor.h"
#include "broker/session/policy.h"
#include "broker/session/session_input.h"
#include "broker/session/transport.h"
#include "kavri/core.h"

namespace kavri::broker {

struct SessionId {
    std::uint32_t index = 0;
    std::uint32_t generation = 0;
    bool operator==(const SessionId&) const = default;
};

// The id as one number, as records and reports name a connection.
inline std::uint64_t numberOf(SessionId id) {
    return std::uint64_t{id.generation} << 32U | id.index;
}

enum class Role : std::uint8_t { unknown, initiator, responder, manager };

// What one user's sessions take together.
struct UserAccount {
    std::size_t connections = 0;
    Account memory;
};

struct Category;
struct Session;

// Where an initiator's requests to a category go that is served on another machine.
struct RemoteResponder {
    std::string category;
    Session* session = nullptr;
};

struct Subscription {
    Category* category = nullptr;
    Charge charge;
};

// Marks the end of a list of pending requests.
inline constexpr std::uint32_t noRequest = UINT32_MAX;

// What a session has as an initiator.
struct InitiatorSide {
    std::uint32_t firstSent = noRequest;
    std::uint32_t pendingRequests = 0;
    std::vector<Subscription> subscriptions;
    std::vector<RemoteResponder> remote;
};

// What a session has as a responder.
struct ResponderSide {
    Category* served = nullptr;
    std::uint32_t firstRequest = noRequest;
    std::uint32_t requestsInFlight = 0;
    // Requests in flight whose initiators have left: their responses are dropped.
    std::uint32_t abandonedRequests = 0;
    // What the senders of its requests are told when it ends.
    kavri_core_status lost = KAVRI_CORE_STATUS_IPC_RESPONDER_LOST;
    // The initiator for whom it is, where it stands for one on another machine.
    Session* usedBy = nullptr;
};

struct Session {
    // What a connection costs for being there.
    static constexpr std::size_t fixedBytes = 1024;

    Session(SessionId itsId, uid_t itsUser, UserAccount& itsAccount, BufferPool& pool)
        : id(itsId),
          user(itsUser),
          account(itsAccount),
          input(itsAccount.memory),
          sendQueue(pool, itsAccount.memory),
          charge(itsAccount.memory, fixedBytes) {}

    const SessionId id;
    const uid_t user;
    UserAccount& account;
    const Clock::time_point connected = Clock::now();
    pid_t process = 0;
    Role role = Role::unknown;  // unknown until its hello

    // In place of a socket.
    Transport* transport = nullptr;

    // Of the event loop.
    int descriptor = -1;
    std::uint32_t watchedEvents = 0;  // by epoll
    bool isBulk = false;              // sends more than its share of a round
    bool isClosing = false;
    bool listedForWriting = false;  // the router put something into the send queue
    bool listedForFanOut = false;   // the same, as one of many receivers
    bool listedForRelease = false;  // has room, and senders that are still blocked on it

    SessionInput input;
    SendQueue sendQueue;
    std::unique_ptr<Congestion> congestion;  // of the send queue

    // A blocked session is not read from until it is resumed.
    WaitingPlace waiting;
    bool isBlocked() const { return waiting.on != nullptr; }

    std::unique_ptr<Monitor> monitor;  // of one that monitors

    Charge charge;  // for the session itself and its pending requests
    InitiatorSide asInitiator;
    ResponderSide asResponder;
};

}  // namespace kavri::broker

#endif
