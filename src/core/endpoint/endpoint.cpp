// The endpoint's parts put together; see endpoint.h.
#include "core/endpoint/endpoint.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "wire/limits.h"

namespace kavri::core {

using wire::Frame;

Endpoint::Endpoint(Settings settings)
    : settings_(std::move(settings)),
      notifier_(dispatcher_, settings_.connectionCallback, settings_.connectionContext) {}

kavri_core_status Endpoint::start() {
    Lock lock = acquire();
    CallDeadline unlimited;  // except for the time that connecting may take
    const kavri_core_status status = connectIfNeeded(lock, unlimited);
    if (status == KAVRI_CORE_STATUS_NO_ERROR && dispatcher_.hasCallback()) {
        ensureThread();
    }
    return status;
}

void Endpoint::end() {
    Lock lock = acquire();
    dispatcher_.beginEnd();
    connector_.interrupt();
    shared_.wakeAll();
    dispatcher_.awaitEnd(lock);
}

void Endpoint::abandon(std::shared_ptr<Endpoint> copy) {
    // All of them stay reachable, and none is ever destroyed. Allocates nothing.
    static std::atomic<Endpoint*> newest{nullptr};
    Endpoint& endpoint = *copy;
    endpoint.itself_ = std::move(copy);
    endpoint.abandonedBefore_ = newest.exchange(&endpoint);
    // Neither needs the lock, which a thread of the parent may have held when it forked.
    endpoint.shared_.record().closeCopy();
    endpoint.shared_.waker().closeCopy();
    // Of what that thread was changing, nothing can be used.
    if (const Lock lock = endpoint.monitor_.tryAcquire()) {
        endpoint.dropMessages();
    }
}

kavri_core_status Endpoint::connectionMade(Lock& lock, CallDeadline& deadline,
                                           const ReconnectSchedule::Connected& made) {
    notifier_.connected(made);
    CallDeadline usual(settings_.sendTimeout);
    const bool isShorter = deadline.at() && *deadline.at() < *usual.at();
    const std::uint64_t number = connectionNumber();
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    bool isComplete = false;
    try {
        isComplete = restore(lock, isShorter ? deadline : usual);
    } catch (const std::bad_alloc&) {
        status = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    // A connection over which not everything is in effect would miss messages in silence.
    // Without memory the call fails; otherwise its caller sees that there is no connection.
    if (!isComplete && shared_.isConnected(number)) {
        shared_.lose("the subscriptions could not be restored");
    }
    return status;
}

void Endpoint::connectionLost(const SharedConnection::Loss& loss) {
    sendPath_.connectionLost();
    connector_.connectionLost();
    handleLoss();
    log().warning({"lost the connection to the broker at ", settings_.address, ": ", loss.reason});
    notifier_.lost(loss);
}

kavri_core_status Endpoint::sendFrame(Lock& lock, Frame frame, CallDeadline& deadline) {
    std::size_t sent = 0;
    return sendFrames(lock, {&frame, 1}, nullptr, deadline, sent);
}

kavri_core_status Endpoint::sendFrames(Lock& lock, std::span<Frame> frames,
                                       PendingRequests* pending, CallDeadline& deadline,
                                       std::size_t& sent) {
    bool triedAgain = false;
    while (sent < frames.size()) {
        if (!isConnected()) {
            const kavri_core_status status = connectIfNeeded(lock, deadline);
            if (status != KAVRI_CORE_STATUS_NO_ERROR) {
                return status;
            }
        }
        const SendPath::Result part =
            sendPath_.send(lock, frames.subspan(sent), pending, when(), deadline, sent);
        // The connection turned out to be dead before anything went over it: another one may
        // be had.
        const bool again =
            part.status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST && part.isUntouched && !triedAgain;
        if (part.status != KAVRI_CORE_STATUS_NO_ERROR && !again) {
            return part.status;
        }
        triedAgain = again;
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status Endpoint::sendFrameOver(Lock& lock, std::uint64_t connectionNumber, Frame frame,
                                          CallDeadline& deadline) {
    if (!shared_.isConnected(connectionNumber)) {
        return KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
    }
    std::size_t sent = 0;
    return sendPath_.send(lock, {&frame, 1}, nullptr, when(), deadline, sent).status;
}

SendPath::When Endpoint::when() const {
    return settings_.gatherWrites && dispatcher_.isOwnThread() ? SendPath::When::gathered
                                                               : SendPath::When::now;
}

void Endpoint::dequeued(const Message& message) {
    if (shared_.budget().dequeued(message.bytes())) {
        monitor_.notifyAll();
    }
}

Message::Fields Endpoint::take(std::deque<Message>& queue) {
    KAVRI_ASSERT(!queue.empty(), "a message is taken where there is one");
    dequeued(queue.front());
    const Message::Fields fields = queue.front().release();
    queue.pop_front();
    return fields;
}

// Whether the library's thread has something to deliver. What was received over a restored
// connection comes after the change that reports it, and that once everything is in effect;
// or once nothing further can be read before.
bool Endpoint::hasWork() const {
    if (!notifier_.hasChange()) {
        return hasDelivery();
    }
    return !notifier_.isNextARestored() || isRestored() || shared_.budget().isUsedUp();
}

void Endpoint::dispatchOnce(Lock& lock) {
    CallDeadline unlimited;
    if (dispatcher_.hasCallback() && shared_.handleUntil([this] { return hasWork(); })) {
        notifier_.hasChange() ? notifier_.deliver(lock) : deliver(lock);
    } else if (sendPath_.hasGathered()) {
        flush(lock);
    } else if (!dispatcher_.hasCallback()) {
        monitor_.wait(lock);
    } else if (isConnected()) {
        retryPause_ = wire::firstReconnectPause;
        awaitWork(lock);
    } else if (connectIfNeeded(lock, unlimited) != KAVRI_CORE_STATUS_NO_ERROR) {
        monitor_.waitFor(lock, retryPause_);
        retryPause_ = std::min(retryPause_ * 2, wire::lastReconnectPause);
    }
}

// A change that cannot be delivered yet waits for the broker's acknowledgements, and for
// those no longer than a subscribe would.
void Endpoint::awaitWork(Lock& lock) {
    CallDeadline unlimited;
    CallDeadline limited(settings_.sendTimeout);
    CallDeadline& deadline = notifier_.hasChange() ? limited : unlimited;
    const Wait wait = waitUntil(lock, deadline, [this] {
        return dispatcher_.isEnding() || !dispatcher_.hasCallback() || hasWork();
    });
    if (wait == Wait::timedOut) {
        shared_.lose("the subscriptions were not acknowledged");
    }
}

}  // namespace kavri::core
