// What an initiator and a responder have in common: a connection that several
// threads share, that is made again when it is lost, and callbacks.
//
// There is one mutex, and two jobs that a thread may have while it holds none:
// reading (waiting for the socket) and sending (waiting for room in it). Any
// thread that waits for something to arrive does the reading itself when nobody
// else does; so a lone caller wakes straight from the kernel. What has arrived is
// handled frame by frame, by whoever waits, as far as it needs: so a message is
// made when it is handed out, and others are told that there may be more.
//
// The endpoint's own thread exists from the first installation of a callback to
// the end. While a callback is installed it reads like any other thread that
// waits, calls the callbacks, and connects again after a loss; otherwise it
// sleeps.
#ifndef KAVRI_CORE_ENDPOINT_H
#define KAVRI_CORE_ENDPOINT_H

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>

#include "core/connection.h"
#include "core/connection_changes.h"
#include "core/deadline.h"
#include "core/logging.h"
#include "core/message.h"
#include "core/pending_requests.h"
#include "core/process_generation.h"
#include "core/reconnect_pause.h"
#include "core/send_buffer.h"
#include "interfaces/frame.h"
#include "kavri/ipc.h"

namespace kavri::core {

// How an endpoint reaches its broker.
struct Settings {
    std::string address;
    std::string role;
    std::string servedCategory;  // of a responder
    std::chrono::milliseconds connectTimeout{};
    std::chrono::milliseconds sendTimeout{};
    bool gatherWrites = false;  // of what a callback sends
    kavri_core_ipc_connection_callback connectionCallback = nullptr;
    void* connectionContext = nullptr;
    std::shared_ptr<Log> log;
};

// Reads what a caller of an init function gave. The status is NO_ERROR, or why
// it cannot be used.
kavri_core_status readSettings(kavri_core_logging_cookie cookie, const void* options,
                               Settings& settings);

// 0 and above in milliseconds, -1 without limit; nothing else.
bool isTimeout(int timeout);
CallDeadline deadlineAfter(int timeoutMs);

// A callback, and how often it was begun and ended: whoever replaces it waits
// until what was begun before has ended.
template <typename Function>
struct CallbackSlot {
    Function function = nullptr;
    void* context = nullptr;
    std::uint64_t begun = 0;
    std::uint64_t ended = 0;

    bool isInstalled() const { return function != nullptr; }
};

class Endpoint : public std::enable_shared_from_this<Endpoint> {
  public:
    explicit Endpoint(Settings settings);
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    virtual ~Endpoint() = default;

    // Connects for the first time.
    kavri_core_status start();

    // Removes the callbacks and ends the thread; from within a callback, the
    // thread ends when that returns.
    void end();

    // Whether this process only has a copy of an endpoint of the one that forked it.
    bool isInherited() const { return generation_ != processGeneration(); }
    // Of such a copy, in place of its end: releases what it holds, and keeps the rest for
    // good, since the waiters of its lock and condition are threads of the parent.
    static void abandon(std::shared_ptr<Endpoint> copy);

  protected:
    using Lock = std::unique_lock<std::mutex>;
    enum class Wait { ready, timedOut, lost };

    // Each is called with the lock held. A large frame's payload comes in memory of
    // its own, which may be taken over.
    virtual void handleFrame(const interfaces::Frame& frame, Text& payload) = 0;
    // Restores over the new connection, and no other, what belongs to one; false where not
    // everything was sent. The connection may be lost again on return.
    virtual bool connectionMade(Lock& lock, CallDeadline& deadline) = 0;
    // Whether the broker has acknowledged all of that.
    virtual bool isRestored() const = 0;
    virtual void connectionLost() = 0;
    virtual bool hasCallback() const = 0;
    virtual void removeCallbacks() = 0;
    // Drops the messages that nobody has received.
    virtual void dropMessages() = 0;
    // Whether something waits for a callback that is installed.
    virtual bool hasDelivery() const = 0;
    // Calls the callback for it, without the lock.
    virtual void deliver(Lock& lock) = 0;

    Lock acquire() { return Lock(mutex_); }
    std::chrono::milliseconds sendTimeout() const { return settings_.sendTimeout; }
    Log& log() { return *settings_.log; }
    bool isConnected() const { return connection_ != nullptr; }
    // Tells one connection from those before.
    std::uint64_t connectionNumber() const { return connectionNumber_; }

    // Handles what has arrived, frame by frame, until `ready()`; whether it is.
    template <typename Ready>
    bool becomesReady(const Ready& ready);
    // Waits until `ready()`, the time is over, or there is no connection, or no
    // longer the one there was.
    template <typename Ready>
    Wait waitUntil(Lock& lock, CallDeadline& deadline, const Ready& ready);

    kavri_core_status connectIfNeeded(Lock& lock, CallDeadline& deadline);

    // Sends frames in order, as many with one write as make a good one, over the
    // connection there is or a new one. `sent` rises by how many were accepted. Frames
    // that are requests get their correlation tokens from `pending`, where they are then
    // added; others come with null. What a callback sends may stay in the send buffer
    // until its thread has nothing else to do; whatever is sent next leaves behind it.
    kavri_core_status sendFrames(Lock& lock, std::span<interfaces::Frame> frames,
                                 PendingRequests* pending, CallDeadline& deadline,
                                 std::size_t& sent);
    kavri_core_status sendFrame(Lock& lock, interfaces::Frame frame, CallDeadline& deadline);
    // Likewise a frame that belongs to one connection alone.
    kavri_core_status sendFrameOver(Lock& lock, std::uint64_t connectionNumber,
                                    interfaces::Frame frame, CallDeadline& deadline);

    // Something changed that others may wait for.
    void announce();

    // Handles all that has arrived.
    void handleFrames();

    // What the endpoint holds for those who have not received it yet.
    void held(const Message& message) { heldBytes_ += message.bytes(); }
    void handedOut(const Message& message);
    // The strings of the next message of a queue, which are the caller's from now on.
    Message::Fields take(std::deque<Message>& queue);

    template <typename Function>
    void install(Lock& lock, CallbackSlot<Function>& slot, Function function, void* context);
    template <typename Function, typename Call>
    void invoke(Lock& lock, CallbackSlot<Function>& slot, const Call& call);

  private:
    void waitForOthers(Lock& lock, Deadline deadline);
    void readOnce(Lock& lock, Deadline deadline, bool onlyLook);
    void handleInput(Connection& connection, Connection::Io io);
    bool handleNextFrame();
    // What a try to send came to, and whether not a byte of its frames went out.
    struct Sent {
        kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
        bool untouched = true;
    };
    Sent sendPart(Lock& lock, std::span<interfaces::Frame> frames, PendingRequests* pending,
                  CallDeadline& deadline, std::size_t& sent);
    // Accepts into the send buffer; how many, and the last of them where it is large.
    struct Accepted {
        std::size_t count = 0;
        const interfaces::Frame* large = nullptr;
    };
    Accepted accept(std::span<interfaces::Frame> frames, PendingRequests* pending,
                    const Connection& connection);
    Sent writeOut(Lock& lock, std::size_t earlierBytes, const interfaces::Frame* large,
                  CallDeadline& deadline);
    Connection::Io writeWaiting(Lock& lock, Connection& connection, SendBuffer::Write& write,
                                CallDeadline& deadline);
    void waitForRoom(Lock& lock, Connection& connection, Deadline deadline);
    // Whether what is sent now may wait for more.
    bool gathers() const { return settings_.gatherWrites && isOwnThread(); }
    void flush(Lock& lock);
    bool mayConnect() const;
    kavri_core_status restore(Lock& lock, CallDeadline& deadline);
    void lose(std::string_view reason);
    void reportLoss(std::string_view reason);
    void change(const ConnectionChange& what);
    // Whether the library's thread has something to deliver.
    bool hasWork() const;
    void deliverChange(Lock& lock);
    bool mayRead() const;
    bool isOwnThread() const { return thread_.get_id() == std::this_thread::get_id(); }
    void ensureThread();
    void runThread();
    void runThreadOnce(Lock& lock, std::chrono::milliseconds& pause);

    const Settings settings_;
    const unsigned generation_ = processGeneration();
    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<Connection> connection_;
    std::uint64_t connectionNumber_ = 0;
    std::optional<Waker> waker_{std::in_place};
    ReconnectPause reconnectPause_;
    Clock::time_point lostAt_;
    kavri_core_status goodbyeStatus_ = KAVRI_CORE_STATUS_NO_ERROR;
    std::optional<std::string> goodbye_;  // why the broker is closing the connection
    ConnectionChanges changes_;
    CallbackSlot<kavri_core_ipc_connection_callback> connectionCallback_;
    std::size_t heldBytes_ = 0;
    SendBuffer sendBuffer_;
    bool reading_ = false;
    bool writing_ = false;  // a thread waits for room; the send buffer is its
    bool connecting_ = false;
    bool woken_ = false;
    bool ending_ = false;
    std::thread thread_;
    // Of a copy that was abandoned: keep it, and those abandoned before.
    std::shared_ptr<Endpoint> itself_;
    Endpoint* abandonedBefore_ = nullptr;
};

template <typename Ready>
bool Endpoint::becomesReady(const Ready& ready) {
    while (!ready()) {
        if (!mayRead() || !handleNextFrame()) {
            return false;
        }
    }
    return true;
}

template <typename Ready>
Endpoint::Wait Endpoint::waitUntil(Lock& lock, CallDeadline& deadline, const Ready& ready) {
    const std::uint64_t number = connectionNumber_;
    while (true) {
        if (becomesReady(ready)) {
            return Wait::ready;
        }
        if (connection_ == nullptr || connectionNumber_ != number) {
            return Wait::lost;
        }
        if (!sendBuffer_.isEmpty() && isOwnThread()) {
            flush(lock);  // what it waits for may be the answer
            continue;
        }
        const bool expired = deadline.hasPassed();
        if (mayRead()) {
            readOnce(lock, deadline.at(), expired);
        }
        if (expired && connection_ != nullptr) {
            return becomesReady(ready) ? Wait::ready : Wait::timedOut;
        }
        if (!mayRead() && !ready()) {
            waitForOthers(lock, deadline.at());
        }
    }
}

template <typename Function>
void Endpoint::install(Lock& lock, CallbackSlot<Function>& slot, Function function, void* context) {
    if (function != nullptr) {
        ensureThread();
    }
    slot.function = function;
    slot.context = context;
    announce();
    if (!isOwnThread()) {
        const std::uint64_t begunBefore = slot.begun;
        changed_.wait(lock, [&] { return slot.ended >= begunBefore; });
    }
}

template <typename Function, typename Call>
void Endpoint::invoke(Lock& lock, CallbackSlot<Function>& slot, const Call& call) {
    const Function function = slot.function;
    void* const context = slot.context;
    ++slot.begun;
    lock.unlock();
    call(function, context);
    lock.lock();
    ++slot.ended;
    changed_.notify_all();
}

}  // namespace kavri::core

#endif
