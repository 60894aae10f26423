// What an initiator and a responder have in common: a connection that several threads share
// and that is made again when it is lost, a way for frames into it, and callbacks.
//
// The parts are types of their own, and all of them are guarded by the one lock:
//
//     Monitor             the lock, the condition, the lock order
//     SharedConnection    the present connection; turns at reading; frames that arrived
//     SendPath            frames on their way out
//     Connector           making a connection, and the pauses before it
//     Dispatcher          the library's thread and its callbacks
//     ConnectionNotifier  the connection callback and its changes
//
// The endpoint puts them together: what a waiting call does, and what the library's thread
// does. While a callback is installed, that thread reads like any other that waits, calls the
// callbacks, and connects again after a loss; otherwise it sleeps.
#ifndef KAVRI_CORE_ENDPOINT_ENDPOINT_H
#define KAVRI_CORE_ENDPOINT_ENDPOINT_H

#include <deque>
#include <memory>
#include <optional>
#include <span>

#include "core/deadline.h"
#include "core/endpoint/connection_notifier.h"
#include "core/endpoint/connector.h"
#include "core/endpoint/dispatcher.h"
#include "core/endpoint/monitor.h"
#include "core/endpoint/send_path.h"
#include "core/endpoint/settings.h"
#include "core/endpoint/shared_connection.h"
#include "core/message.h"
#include "core/pending_requests.h"
#include "core/process_generation.h"

namespace kavri::core {

class Endpoint : public std::enable_shared_from_this<Endpoint>,
                 protected SharedConnection::Events,
                 private Connector::Events,
                 private Dispatcher::Work {
  public:
    explicit Endpoint(Settings settings);
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    virtual ~Endpoint() = default;

    // Connects for the first time.
    kavri_core_status start();

    // Removes the callbacks and ends the thread; from within a callback, the thread ends when
    // that returns.
    void end();

    // Whether this process only has a copy of an endpoint of the one that forked it.
    bool isInherited() const { return generation_ != processGeneration(); }
    // Of such a copy, in place of its end: closes its descriptors, releases its messages, and
    // keeps the rest for good, since the waiters of its lock and condition are threads of the
    // parent.
    static void abandon(std::shared_ptr<Endpoint> copy);

  protected:
    // What differs between initiator and responder, besides frameReceived; each is called
    // with the lock held.

    // Restores over the new connection, and no other, what belongs to one; false where not
    // everything was sent. The connection may be lost again on return.
    virtual bool restore(Lock& lock, CallDeadline& deadline) = 0;
    // Whether the broker has acknowledged all of that.
    virtual bool isRestored() const = 0;
    virtual void handleLoss() = 0;
    // Drops the messages that nobody has received.
    virtual void dropMessages() = 0;
    // Whether there is a message for a callback that is installed; and calls it.
    virtual bool hasDelivery() const = 0;
    virtual void deliver(Lock& lock) = 0;

    Lock acquire() { return monitor_.acquire(); }
    const Settings& settings() const { return settings_; }
    std::chrono::milliseconds sendTimeout() const { return settings_.sendTimeout; }
    Log& log() { return *settings_.log; }
    Dispatcher& dispatcher() { return dispatcher_; }
    bool isConnected() const { return shared_.isConnected(); }
    std::uint64_t connectionNumber() const { return shared_.number(); }

    // Waits until `ready()`, the time is over, or there is no connection, or no longer the one
    // there was. Handles what arrives as far as that takes.
    enum class Wait { ready, timedOut, lost };
    template <typename Ready>
    Wait waitUntil(Lock& lock, CallDeadline& deadline, const Ready& ready);
    // Handles all that has arrived.
    void handleFrames() { shared_.handleAll(); }

    // A receive: waits until `isReady()`, and connects anew where there is no connection, until
    // `outcome()` has a status to return, which it takes. Why it cannot connect is returned as
    // `unconnected` turns it.
    template <typename Ready, typename Outcome, typename Unconnected>
    kavri_core_status receiveNext(Lock& lock, int timeoutMs, const Ready& isReady,
                                  const Outcome& outcome, const Unconnected& unconnected);

    // Sends frames in order, over the connection there is or a new one. `sent` rises by how
    // many were accepted. Frames that are requests get their correlation tokens from
    // `pending`, where they are then added; others come with null. What a callback sends may
    // stay in the send buffer until its thread has nothing else to do.
    kavri_core_status sendFrames(Lock& lock, std::span<wire::Frame> frames,
                                 PendingRequests* pending, CallDeadline& deadline,
                                 std::size_t& sent);
    kavri_core_status sendFrame(Lock& lock, wire::Frame frame, CallDeadline& deadline);
    // Likewise a frame that belongs to one connection alone.
    kavri_core_status sendFrameOver(Lock& lock, std::uint64_t connectionNumber, wire::Frame frame,
                                    CallDeadline& deadline);

    // Counts a message among those that nobody has received, and no longer.
    void queued(const Message& message) { shared_.budget().queued(message.bytes()); }
    void dequeued(const Message& message);
    // The strings of the next message of a queue, which are the caller's from now on.
    Message::Fields take(std::deque<Message>& queue);

    // Installs a callback or, with null, removes it; returns as Dispatcher::awaitReturn does.
    template <typename Function>
    void install(Lock& lock, CallbackSlot<Function>& slot, Function function, void* context);

  private:
    void connectionLost(const SharedConnection::Loss& loss) final;
    kavri_core_status connectionMade(Lock& lock, CallDeadline& deadline,
                                     const ReconnectSchedule::Connected& made) final;
    void dispatchOnce(Lock& lock) final;
    void finishDispatching(Lock& lock) final { flush(lock); }

    kavri_core_status connectIfNeeded(Lock& lock, CallDeadline& deadline) {
        return connector_.connectIfNeeded(lock, deadline);
    }
    bool hasWork() const;
    void awaitWork(Lock& lock);
    void flush(Lock& lock) { sendPath_.flush(lock, settings_.sendTimeout); }
    // Whether what is sent now may wait for more.
    SendPath::When when() const;
    // The library's thread shares the ownership of the endpoint.
    void ensureThread() { dispatcher_.ensureThread({shared_from_this(), this}); }

    const Settings settings_;
    const unsigned generation_ = processGeneration();
    Monitor monitor_;
    Dispatcher dispatcher_{monitor_};
    SharedConnection shared_{monitor_, *this};
    SendPath sendPath_{monitor_, shared_};
    Connector connector_{settings_, monitor_, shared_, dispatcher_, *this};
    ConnectionNotifier notifier_;
    // Between tries of the library's thread to connect; doubles with each that fails.
    std::chrono::milliseconds retryPause_ = wire::firstReconnectPause;

    // Of a copy that was abandoned: keep it, and those abandoned before.
    std::shared_ptr<Endpoint> itself_;
    Endpoint* abandonedBefore_ = nullptr;
};

template <typename Ready>
Endpoint::Wait Endpoint::waitUntil(Lock& lock, CallDeadline& deadline, const Ready& ready) {
    monitor_.expectHeld(lock);
    const std::uint64_t number = shared_.number();
    while (true) {
        if (shared_.handleUntil(ready)) {
            return Wait::ready;
        }
        if (!shared_.isConnected(number)) {
            return Wait::lost;
        }
        if (sendPath_.hasGathered() && dispatcher_.isOwnThread()) {
            flush(lock);  // what it waits for may be the answer
            continue;
        }
        const bool expired = deadline.hasPassed();
        if (shared_.mayRead()) {
            using Waiting = SharedConnection::Waiting;
            shared_.read(lock, expired ? Waiting::no : Waiting::yes, deadline.at());
        }
        if (expired && shared_.isConnected()) {
            return shared_.handleUntil(ready) ? Wait::ready : Wait::timedOut;
        }
        if (!shared_.mayRead() && !ready()) {
            monitor_.wait(lock, deadline.at());
        }
    }
}

template <typename Ready, typename Outcome, typename Unconnected>
kavri_core_status Endpoint::receiveNext(Lock& lock, int timeoutMs, const Ready& isReady,
                                        const Outcome& outcome, const Unconnected& unconnected) {
    CallDeadline deadline = deadlineAfter(timeoutMs);
    bool wasConnected = isConnected();
    while (true) {
        const Wait wait = waitUntil(lock, deadline, isReady);
        if (const std::optional<kavri_core_status> status = outcome()) {
            return *status;
        }
        if (wait == Wait::timedOut) {
            return KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
        }
        if (wasConnected) {
            return KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
        }
        if (timeoutMs == 0) {
            return KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
        }
        const kavri_core_status status = connectIfNeeded(lock, deadline);
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            return unconnected(status);
        }
        wasConnected = true;
    }
}

template <typename Function>
void Endpoint::install(Lock& lock, CallbackSlot<Function>& slot, Function function, void* context) {
    if (function != nullptr) {
        ensureThread();
    }
    slot.set(function, context);
    shared_.wakeAll();
    dispatcher_.awaitReturn(lock, slot);
}

}  // namespace kavri::core

#endif
