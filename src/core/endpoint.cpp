// The shared part of initiator and responder; see endpoint.h.
#include "core/endpoint.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <exception>

#include "core/lifecycle.h"
#include "interfaces/address.h"
#include "interfaces/limits.h"

namespace kavri::core {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

namespace {

// The options of a program that knows no connection callback.
constexpr std::size_t smallestOptionsBytes = offsetof(kavri_core_ipc_options, connectionCallback);

bool isWithinLimits(const Frame& frame, std::size_t payloadLimitBytes) {
    return std::all_of(frame.fields.begin(), frame.fields.end() - 1,
                       [](std::string_view field) {
                           return field.size() <= interfaces::fieldLimitBytes;
                       }) &&
           frame.fields.back().size() <= payloadLimitBytes;
}

}  // namespace

kavri_core_status readSettings(kavri_core_logging_cookie cookie, const void* options,
                               Settings& settings) {
    if (!isInitialised()) {
        return KAVRI_CORE_STATUS_NOT_INITIALISED;
    }
    kavri_core_ipc_options given{};
    if (options != nullptr) {
        const auto* chosen = static_cast<const kavri_core_ipc_options*>(options);
        if (chosen->sizeBytes < smallestOptionsBytes) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
        const bool isComplete = chosen->sizeBytes >= sizeof given;
        std::memcpy(&given, chosen, isComplete ? sizeof given : smallestOptionsBytes);
        if (given.connectionCallback == nullptr && given.connectionContext != nullptr) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
    }
    settings.log = cookie != nullptr ? cookie->log : std::make_shared<Log>("kavri");
    if (given.brokerAddress != nullptr && *given.brokerAddress == '\0') {
        settings.log->info({"the broker's address in the options is empty"});
        return KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID;
    }
    settings.address =
        interfaces::brokerAddress(given.brokerAddress != nullptr ? given.brokerAddress : "");
    if (const auto error = interfaces::addressError(settings.address)) {
        settings.log->info({"cannot use the broker's address: ", *error});
        return KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID;
    }
    const auto orDefault = [](unsigned chosen, unsigned otherwise) {
        return std::chrono::milliseconds(chosen != 0 ? chosen : otherwise);
    };
    settings.connectTimeout =
        orDefault(given.connectTimeoutMs, interfaces::defaultConnectTimeoutMs);
    settings.sendTimeout = orDefault(given.sendTimeoutMs, interfaces::defaultSendTimeoutMs);
    settings.gatherWrites = given.gatherWrites != 0;
    settings.connectionCallback = given.connectionCallback;
    settings.connectionContext = given.connectionContext;
    return KAVRI_CORE_STATUS_NO_ERROR;
}

bool isTimeout(int timeout) {
    return timeout >= -1;
}

CallDeadline deadlineAfter(int timeoutMs) {
    return timeoutMs < 0 ? CallDeadline() : CallDeadline(std::chrono::milliseconds(timeoutMs));
}

Endpoint::Endpoint(Settings settings) : settings_(std::move(settings)) {
    connectionCallback_.function = settings_.connectionCallback;
    connectionCallback_.context = settings_.connectionContext;
}

kavri_core_status Endpoint::start() {
    Lock lock = acquire();
    CallDeadline unlimited;  // except for the time that connecting may take
    const kavri_core_status status = connectIfNeeded(lock, unlimited);
    if (status == KAVRI_CORE_STATUS_NO_ERROR && connectionCallback_.isInstalled()) {
        ensureThread();
    }
    return status;
}

void Endpoint::end() {
    Lock lock = acquire();
    ending_ = true;
    connectionCallback_.function = nullptr;
    removeCallbacks();
    if (connecting_) {
        waker_->wake();  // for good: there is nothing left to wait for
    }
    announce();
    if (!thread_.joinable()) {
        return;
    }
    if (isOwnThread()) {
        thread_.detach();
        return;
    }
    lock.unlock();
    thread_.join();
}

void Endpoint::abandon(std::shared_ptr<Endpoint> copy) {
    // All of them stay reachable, and none is ever destroyed. Allocates nothing.
    static std::atomic<Endpoint*> newest{nullptr};
    Endpoint& endpoint = *copy;
    endpoint.itself_ = std::move(copy);
    endpoint.abandonedBefore_ = newest.exchange(&endpoint);
    // Where a thread of the parent was at work when it forked, what it was changing may
    // be half changed.
    if (endpoint.mutex_.try_lock()) {
        if (endpoint.connection_ != nullptr) {
            // A thread of the parent that was reading has a share in it, for good.
            endpoint.connection_->closeCopy();
        }
        endpoint.waker_.reset();
        endpoint.dropMessages();
        endpoint.mutex_.unlock();
    }
}

// Whether there is nothing to wait for before a connection is made. The reader of a lost
// one must leave first: a wake-up meant for it would abort the new handshake.
bool Endpoint::mayConnect() const {
    return !connecting_ && !reading_ && Clock::now() >= reconnectPause_.notBefore();
}

kavri_core_status Endpoint::connectIfNeeded(Lock& lock, CallDeadline& deadline) {
    while (connection_ == nullptr && !mayConnect()) {
        if (deadline.hasPassed() || ending_) {
            return KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
        }
        const bool pauses = !connecting_ && !reading_;
        const Clock::time_point end = reconnectPause_.notBefore();
        waitForOthers(lock, pauses ? std::min(deadline.at().value_or(end), end) : deadline.at());
    }
    if (connection_ != nullptr) {
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    const Clock::time_point limit = Clock::now() + settings_.connectTimeout;
    const Clock::time_point latest = std::min(limit, deadline.at().value_or(limit));
    connecting_ = true;
    lock.unlock();
    Connection::Opened opened;
    try {
        opened = Connection::open(settings_.address, settings_.role, settings_.servedCategory,
                                  *waker_, latest);
    } catch (...) {
        opened.status = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    lock.lock();
    connecting_ = false;
    if (opened.connection != nullptr) {
        connection_ = std::move(opened.connection);
        const bool isFirst = connectionNumber_++ == 0;
        const Clock::time_point now = Clock::now();
        reconnectPause_.connected(now);
        goodbye_.reset();
        const auto disconnected = std::chrono::ceil<std::chrono::milliseconds>(now - lostAt_);
        change(isFirst
                   ? ConnectionChange(KAVRI_CORE_IPC_CONNECTION_MADE, KAVRI_CORE_STATUS_NO_ERROR,
                                      "connected")
                   : ConnectionChange(KAVRI_CORE_IPC_CONNECTION_RESTORED,
                                      KAVRI_CORE_STATUS_NO_ERROR, "connected again", disconnected));
        opened.status = restore(lock, deadline);
    } else if (!ending_) {
        log().info({"no connection to the broker at ", settings_.address, ": ",
                    opened.reason.empty() ? kavri_core_status_text(opened.status)
                                          : std::string_view(opened.reason)});
    }
    announce();
    return opened.status;
}

// A connection over which not everything is in effect again would miss messages in silence:
// it is given up. Without memory the call fails; otherwise it is for the caller to see that
// there is no connection.
kavri_core_status Endpoint::restore(Lock& lock, CallDeadline& deadline) {
    CallDeadline usual(settings_.sendTimeout);
    const bool isShorter = deadline.at() && *deadline.at() < *usual.at();
    const std::uint64_t number = connectionNumber_;
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    bool isComplete = false;
    try {
        isComplete = connectionMade(lock, isShorter ? deadline : usual);
    } catch (const std::bad_alloc&) {
        status = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    if (!isComplete && connection_ != nullptr && connectionNumber_ == number) {
        lose("the subscriptions could not be restored");
    }
    return status;
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
        if (connection_ == nullptr) {
            const kavri_core_status status = connectIfNeeded(lock, deadline);
            if (status != KAVRI_CORE_STATUS_NO_ERROR) {
                return status;
            }
        }
        const Sent part = sendPart(lock, frames.subspan(sent), pending, deadline, sent);
        // The connection turned out to be dead before anything went over it: another one
        // may be had.
        const bool again =
            part.status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST && part.untouched && !triedAgain;
        if (part.status != KAVRI_CORE_STATUS_NO_ERROR && !again) {
            return part.status;
        }
        triedAgain = again;
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status Endpoint::sendFrameOver(Lock& lock, std::uint64_t connectionNumber, Frame frame,
                                          CallDeadline& deadline) {
    if (connection_ == nullptr || connectionNumber_ != connectionNumber) {
        return KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
    }
    std::size_t sent = 0;
    return sendPart(lock, {&frame, 1}, nullptr, deadline, sent).status;
}

Endpoint::Sent Endpoint::sendPart(Lock& lock, std::span<Frame> frames, PendingRequests* pending,
                                  CallDeadline& deadline, std::size_t& sent) {
    const std::uint64_t number = connectionNumber_;
    while (writing_) {
        if (deadline.hasPassed()) {
            return {KAVRI_CORE_STATUS_IPC_OVERLOADED, true};
        }
        waitForOthers(lock, deadline.at());
    }
    if (connection_ == nullptr || connectionNumber_ != number) {
        return {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, true};
    }
    const std::size_t earlierBytes = sendBuffer_.size();
    const Accepted accepted = accept(frames, pending, *connection_);
    if (accepted.count == 0) {
        return {KAVRI_CORE_STATUS_IPC_TOO_LARGE, true};
    }
    Sent result;
    if (accepted.large != nullptr || !gathers() || sendBuffer_.isWorthAWrite()) {
        result = writeOut(lock, earlierBytes, accepted.large, deadline);
    }
    if (result.status == KAVRI_CORE_STATUS_NO_ERROR) {
        sent += accepted.count;
    } else if (pending != nullptr) {
        pending->takeBack(accepted.count);
    }
    return result;
}

// Requests are pending from before the write on: the first may be answered while the last
// has to wait for room.
Endpoint::Accepted Endpoint::accept(std::span<Frame> frames, PendingRequests* pending,
                                    const Connection& connection) {
    const std::size_t earlierBytes = sendBuffer_.size();
    Accepted accepted;
    try {
        for (Frame& frame : frames) {
            if (sendBuffer_.isWorthAWrite() || accepted.large != nullptr ||
                !isWithinLimits(frame, connection.payloadLimitBytes())) {
                break;
            }
            if (pending != nullptr) {
                frame.token = pending->nextToken() + accepted.count;
            }
            accepted.large = sendBuffer_.append(frame) ? &frame : nullptr;
            ++accepted.count;
        }
        if (pending != nullptr) {
            pending->add(accepted.count);
        }
    } catch (...) {
        sendBuffer_.truncate(earlierBytes);
        throw;
    }
    return accepted;
}

// Writes the send buffer, of which `earlierBytes` are not this call's. Where nothing of
// this call's went out, its frames are taken back.
Endpoint::Sent Endpoint::writeOut(Lock& lock, std::size_t earlierBytes, const Frame* large,
                                  CallDeadline& deadline) {
    const std::shared_ptr<Connection> connection = connection_;
    SendBuffer::Write write;
    sendBuffer_.prepare(write, large);
    Connection::Io io = connection->write(write.pieces, write.count);
    if (io == Connection::Io::wouldBlock) {
        io = writeWaiting(lock, *connection, write, deadline);
    }
    if (io == Connection::Io::done) {
        sendBuffer_.clear();
        return {};
    }
    const bool untouched = write.written() <= earlierBytes;
    if (io == Connection::Io::wouldBlock && untouched) {
        sendBuffer_.truncate(earlierBytes);
        sendBuffer_.consume(write.written());
        return {KAVRI_CORE_STATUS_IPC_OVERLOADED, true};
    }
    if (connection_ == connection) {
        lose(io == Connection::Io::lost ? "the broker is gone" : "the broker takes nothing");
    }
    return {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, untouched};
}

// The broker takes nothing for now. It may be waiting for this side to read: so what
// arrives is read meanwhile.
Connection::Io Endpoint::writeWaiting(Lock& lock, Connection& connection, SendBuffer::Write& write,
                                      CallDeadline& deadline) {
    writing_ = true;
    auto io = Connection::Io::wouldBlock;
    while (io == Connection::Io::wouldBlock && !deadline.hasPassed()) {
        waitForRoom(lock, connection, deadline.at());
        io = connection_.get() == &connection ? connection.write(write.pieces, write.count)
                                              : Connection::Io::lost;
    }
    writing_ = false;
    changed_.notify_all();
    return io;
}

// Writes what callbacks have sent. What cannot be written now was accepted all the same:
// the connection then counts as lost, which its callers learn.
void Endpoint::flush(Lock& lock) {
    changed_.wait(lock, [this] { return !writing_; });
    if (connection_ == nullptr || sendBuffer_.isEmpty()) {
        return;
    }
    CallDeadline deadline(settings_.sendTimeout);
    if (writeOut(lock, 0, nullptr, deadline).status == KAVRI_CORE_STATUS_IPC_OVERLOADED) {
        lose("the broker takes nothing");
    }
}

void Endpoint::waitForRoom(Lock& lock, Connection& connection, Deadline deadline) {
    bool reads = false;
    try {
        handleFrames();  // makes room for more
        reads = mayRead();
    } catch (const std::bad_alloc&) {
        // The frame stays where it is; there may be memory for it later.
    }
    reading_ = reading_ || reads;
    lock.unlock();
    connection.waitToWrite(*waker_, reads, deadline);
    auto io = Connection::Io::wouldBlock;
    try {
        io = reads ? connection.read() : io;
    } catch (const std::bad_alloc&) {
        std::this_thread::yield();  // what arrived stays in the socket until there is memory
    }
    lock.lock();
    if (reads) {
        handleInput(connection, io);
    }
}

// Whether a thread that waits for something is to read: nobody does yet, and
// there is room for what comes.
bool Endpoint::mayRead() const {
    return !reading_ && heldBytes_ < interfaces::libraryQueueBytes;
}

void Endpoint::waitForOthers(Lock& lock, Deadline deadline) {
    if (deadline) {
        changed_.wait_until(lock, *deadline);
    } else {
        changed_.wait(lock);
    }
}

void Endpoint::readOnce(Lock& lock, Deadline deadline, bool onlyLook) {
    const std::shared_ptr<Connection> connection = connection_;
    reading_ = true;
    lock.unlock();
    auto io = Connection::Io::wouldBlock;
    std::exception_ptr failure;
    try {
        io = onlyLook ? connection->read() : connection->waitAndRead(*waker_, deadline);
    } catch (...) {
        failure = std::current_exception();
    }
    lock.lock();
    handleInput(*connection, io);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

// The end of a turn at reading: lets others read, and handle what came.
void Endpoint::handleInput(Connection& connection, Connection::Io io) {
    reading_ = false;
    if (woken_) {
        waker_->reset();
        woken_ = false;
    }
    if (io == Connection::Io::lost && connection_.get() == &connection) {
        lose("the broker closed it");
    }
    changed_.notify_all();
}

// The next frame of what has arrived; false when there is none. After an exception the
// frame is still the next.
bool Endpoint::handleNextFrame() {
    if (connection_ == nullptr || reading_) {
        return false;
    }
    const auto frame = connection_->nextFrame();
    if (!frame) {
        return false;
    }
    if (frame->type == FrameType::goodbye) {
        goodbye_ = (*frame)[Field::payload];
        goodbyeStatus_ = failureIn(*frame, KAVRI_CORE_STATUS_IPC_CONNECTION_LOST);
    } else {
        handleFrame(*frame, connection_->largePayload());
    }
    connection_->dropFrame();
    changed_.notify_all();
    return true;
}

void Endpoint::handleFrames() {
    while (handleNextFrame()) {
    }
}

void Endpoint::lose(std::string_view reason) {
    try {
        handleFrames();  // what has arrived counts
    } catch (const std::bad_alloc&) {
        // The outcome of what could not be stored is unknown, like that of the rest.
    }
    connection_->shutDown();  // its other waiters wake up
    connection_ = nullptr;
    sendBuffer_.clear();
    lostAt_ = Clock::now();
    reconnectPause_.lost(lostAt_);
    connectionLost();
    reportLoss(reason);
    changed_.notify_all();
}

void Endpoint::reportLoss(std::string_view reason) {
    log().warning({"lost the connection to the broker at ", settings_.address, ": ",
                   goodbye_ ? std::string_view(*goodbye_) : reason});
    change(goodbye_ ? ConnectionChange(KAVRI_CORE_IPC_CONNECTION_CLOSED_BY_BROKER, goodbyeStatus_,
                                       *goodbye_)
                    : ConnectionChange(KAVRI_CORE_IPC_CONNECTION_BROKEN,
                                       KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, reason));
}

void Endpoint::change(const ConnectionChange& what) {
    if (connectionCallback_.isInstalled()) {
        changes_.add(what);
    }
}

// What was received over a restored connection is delivered behind the change that says so,
// and that once everything is in effect; or once nothing further can be read before.
bool Endpoint::hasWork() const {
    if (changes_.isEmpty()) {
        return hasDelivery();
    }
    return changes_.oldest().event != KAVRI_CORE_IPC_CONNECTION_RESTORED || isRestored() ||
           heldBytes_ >= interfaces::libraryQueueBytes;
}

void Endpoint::deliverChange(Lock& lock) {
    const ConnectionChange next = changes_.take();
    const kavri_core_ipc_connection_change given{
        sizeof given, next.event, next.status, next.reason.data(),
        static_cast<std::uint64_t>(next.disconnected.count())};
    invoke(lock, connectionCallback_,
           [&given](auto* callback, void* context) { callback(&given, context); });
}

void Endpoint::announce() {
    if (reading_ && !woken_) {
        woken_ = true;
        waker_->wake();
    }
    changed_.notify_all();
}

void Endpoint::handedOut(const Message& message) {
    const bool wasFull = heldBytes_ >= interfaces::libraryQueueBytes;
    heldBytes_ -= message.bytes();
    if (wasFull) {
        changed_.notify_all();
    }
}

Message::Fields Endpoint::take(std::deque<Message>& queue) {
    handedOut(queue.front());
    const Message::Fields fields = queue.front().release();
    queue.pop_front();
    return fields;
}

// All signals are left to the program's own threads.
void Endpoint::ensureThread() {
    if (thread_.joinable()) {
        return;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread_ = std::thread([self = shared_from_this()] { self->runThread(); });
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Endpoint::runThread() {
    Lock lock = acquire();
    std::chrono::milliseconds pause = interfaces::firstReconnectPause;
    while (!ending_) {
        try {
            runThreadOnce(lock, pause);
        } catch (const std::bad_alloc&) {
            // Nothing is lost: what could not be stored is still the next. There may be
            // memory again shortly.
            changed_.wait_for(lock, interfaces::firstReconnectPause);
        }
    }
    flush(lock);
}

void Endpoint::runThreadOnce(Lock& lock, std::chrono::milliseconds& pause) {
    const bool reads = connectionCallback_.isInstalled() || hasCallback();
    CallDeadline unlimited;
    if (reads && becomesReady([this] { return hasWork(); })) {
        changes_.isEmpty() ? deliver(lock) : deliverChange(lock);
    } else if (!sendBuffer_.isEmpty()) {
        flush(lock);
    } else if (!reads) {
        changed_.wait(lock);
    } else if (connection_ != nullptr) {
        pause = interfaces::firstReconnectPause;
        // A change that cannot be delivered yet waits for the broker's acknowledgements.
        CallDeadline limit = changes_.isEmpty() ? unlimited : CallDeadline(settings_.sendTimeout);
        const Wait wait = waitUntil(lock, limit, [&] {
            return ending_ || hasWork() || !(connectionCallback_.isInstalled() || hasCallback());
        });
        if (wait == Wait::timedOut) {
            lose("the subscriptions were not acknowledged");
        }
    } else if (connectIfNeeded(lock, unlimited) != KAVRI_CORE_STATUS_NO_ERROR) {
        changed_.wait_for(lock, pause);
        pause = std::min(pause * 2, interfaces::lastReconnectPause);
    }
}

}  // namespace kavri::core
