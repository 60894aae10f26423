// The shared part of initiator and responder; see endpoint.h.
#include "core/endpoint.h"

#include <algorithm>
#include <csignal>

#include "core/lifecycle.h"
#include "interfaces/address.h"
#include "interfaces/limits.h"

namespace kavri::core {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

namespace {

// A write of this size costs as much as its bytes do, not more by its being one.
constexpr std::size_t gatherBytes = 64 * interfaces::kibibyte;

bool isWithinLimits(const Frame& frame, std::size_t payloadLimitBytes) {
    return std::all_of(frame.fields.begin(), frame.fields.end() - 1,
                       [](std::string_view field) {
                           return field.size() <= interfaces::fieldLimitBytes;
                       }) &&
           frame.fields.back().size() <= payloadLimitBytes;
}

// Worth a write of its own, without being copied.
bool isLarge(const Frame& frame) {
    return interfaces::encodedBytes(frame) >= interfaces::largeFrameBytes;
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
        if (chosen->sizeBytes < sizeof given) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
        given = *chosen;
    }
    settings.log = cookie != nullptr ? cookie->log : std::make_shared<Log>("kavri");
    if (given.brokerAddress != nullptr && *given.brokerAddress == '\0') {
        settings.log->info("the broker's address in the options is empty");
        return KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID;
    }
    settings.address =
        interfaces::brokerAddress(given.brokerAddress != nullptr ? given.brokerAddress : "");
    if (const auto error = interfaces::addressError(settings.address)) {
        settings.log->info("cannot use the broker's address: " + *error);
        return KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID;
    }
    const auto orDefault = [](unsigned chosen, unsigned otherwise) {
        return std::chrono::milliseconds(chosen != 0 ? chosen : otherwise);
    };
    settings.connectTimeout =
        orDefault(given.connectTimeoutMs, interfaces::defaultConnectTimeoutMs);
    settings.sendTimeout = orDefault(given.sendTimeoutMs, interfaces::defaultSendTimeoutMs);
    settings.gatherWrites = given.gatherWrites != 0;
    return KAVRI_CORE_STATUS_NO_ERROR;
}

bool isTimeout(int timeout) {
    return timeout >= -1;
}

Deadline deadlineAfter(int timeoutMs) {
    if (timeoutMs < 0) {
        return std::nullopt;
    }
    return Clock::now() + std::chrono::milliseconds(timeoutMs);
}

kavri_core_status Endpoint::start() {
    Lock lock = acquire();
    return connectIfNeeded(lock);
}

void Endpoint::end() {
    Lock lock = acquire();
    ending_ = true;
    removeCallbacks();
    if (connecting_) {
        waker_.wake();  // for good: there is nothing left to wait for
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

kavri_core_status Endpoint::connectIfNeeded(Lock& lock, Deadline deadline) {
    // Who still reads from a lost connection is about to notice; what wakes him
    // until then must not end the making of the next.
    while (connecting_ || (connection_ == nullptr && reading_)) {
        if (deadline && Clock::now() >= *deadline) {
            return KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE;
        }
        waitForOthers(lock, deadline);
    }
    if (connection_ != nullptr) {
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    const Clock::time_point limit = Clock::now() + settings_.connectTimeout;
    connecting_ = true;
    lock.unlock();
    Connection::Opened opened;
    try {
        opened = Connection::open(settings_.address, settings_.role, settings_.servedCategory,
                                  waker_, deadline ? std::min(limit, *deadline) : limit);
    } catch (...) {
        opened.status = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
        opened.reason = "memory or descriptors ran out";
    }
    lock.lock();
    connecting_ = false;
    if (opened.connection != nullptr) {
        connection_ = std::move(opened.connection);
        ++connectionNumber_;
        connectionMade(lock);
    } else if (!ending_) {
        log().info("no connection to the broker at " + settings_.address + ": " + opened.reason);
    }
    announce();
    return opened.status;
}

kavri_core_status Endpoint::sendFrame(Lock& lock, Frame frame) {
    std::size_t sent = 0;
    return sendFrames(lock, {&frame, 1}, sent);
}

kavri_core_status Endpoint::sendFrames(Lock& lock, std::span<Frame> frames, std::size_t& sent) {
    bool triedAgain = false;
    while (sent < frames.size()) {
        if (const kavri_core_status status = connectIfNeeded(lock);
            status != KAVRI_CORE_STATUS_NO_ERROR) {
            return status;
        }
        const Pushed pushed = pushGathered(lock, frames.subspan(sent), sent);
        // The connection turned out to be dead before anything went over it:
        // another may be had.
        const bool again = pushed.status == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST &&
                           pushed.untouched && !triedAgain;
        if (pushed.status != KAVRI_CORE_STATUS_NO_ERROR && !again) {
            return pushed.status;
        }
        triedAgain = again;
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status Endpoint::sendFrameOver(Lock& lock, std::uint64_t connectionNumber,
                                          Frame& frame) {
    if (connection_ == nullptr || connectionNumber_ != connectionNumber) {
        return KAVRI_CORE_STATUS_IPC_CONNECTION_LOST;
    }
    return push(lock, frame).status;
}

Endpoint::Outgoing::Outgoing(const Frame& frame) {
    const interfaces::Header header = interfaces::encodeHeader(frame);
    char* end = std::copy(header.begin(), header.end(), copied.begin());
    if (interfaces::encodedBytes(frame) <= copied.size()) {
        for (const std::string_view& field : frame.fields) {
            end = std::copy(field.begin(), field.end(), end);
        }
    } else {
        for (const std::string_view& field : frame.fields) {
            storage[count++] = {const_cast<char*>(field.data()), field.size()};
        }
    }
    storage[0] = {copied.data(), static_cast<std::size_t>(end - copied.data())};
    beginning = storage[0].iov_base;
}

Endpoint::Outgoing::Outgoing(std::string& gathered) {
    storage[0] = {gathered.data(), gathered.size()};
    beginning = storage[0].iov_base;
}

Endpoint::Pushed Endpoint::push(Lock& lock, Frame& frame) {
    if (isLarge(frame)) {
        flushGathered(lock);
    }
    changed_.wait(lock, [this] { return !sending_; });
    const std::shared_ptr<Connection> connection = connection_;
    if (connection == nullptr) {
        return {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, true};
    }
    if (!isWithinLimits(frame, connection->payloadLimitBytes())) {
        return {KAVRI_CORE_STATUS_IPC_TOO_LARGE, true};
    }
    const bool isRequest = frame.type == FrameType::request;
    if (isRequest) {
        number(frame, 0);
    }
    Pushed pushed;
    if (gathers() && !isLarge(frame)) {
        gather(lock, frame);
    } else {
        Outgoing outgoing(frame);
        pushed = pushBytes(lock, connection, outgoing);
    }
    if (isRequest && pushed.status == KAVRI_CORE_STATUS_NO_ERROR) {
        numbered(1);
    }
    return pushed;
}

// As many of the requests as make a good write; a large one, and one that has no
// others behind it, goes alone and is not copied.
Endpoint::Pushed Endpoint::pushGathered(Lock& lock, std::span<Frame> frames, std::size_t& sent) {
    if (frames.size() == 1 || isLarge(frames.front())) {
        const Pushed pushed = push(lock, frames.front());
        sent += pushed.status == KAVRI_CORE_STATUS_NO_ERROR ? 1 : 0;
        return pushed;
    }
    changed_.wait(lock, [this] { return !sending_; });
    const std::shared_ptr<Connection> connection = connection_;
    if (connection == nullptr) {
        return {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, true};
    }
    std::string bytes;
    std::size_t gathered = 0;
    for (Frame& frame : frames) {
        if (bytes.size() >= gatherBytes || isLarge(frame) ||
            !isWithinLimits(frame, connection->payloadLimitBytes())) {
            break;
        }
        number(frame, gathered);
        interfaces::appendEncoded(frame, bytes);
        ++gathered;
    }
    if (gathered == 0) {
        return {KAVRI_CORE_STATUS_IPC_TOO_LARGE, true};
    }
    // Before the write: the first may be answered while the last has to wait.
    numbered(gathered);
    Outgoing outgoing(bytes);
    const Pushed pushed = pushBytes(lock, connection, outgoing);
    if (pushed.status == KAVRI_CORE_STATUS_NO_ERROR) {
        sent += gathered;
    } else {
        takeBackNumbered(gathered);
    }
    return pushed;
}

Endpoint::Pushed Endpoint::pushBytes(Lock& lock, const std::shared_ptr<Connection>& connection,
                                     Outgoing& outgoing) {
    Connection::Io io = connection->write(outgoing.pieces, outgoing.count);
    if (io == Connection::Io::wouldBlock) {
        io = pushBlocked(lock, *connection, outgoing);
    }
    if (io == Connection::Io::done) {
        return {KAVRI_CORE_STATUS_NO_ERROR, false};
    }
    const bool untouched = outgoing.isUntouched();
    if (io == Connection::Io::wouldBlock && untouched) {
        return {KAVRI_CORE_STATUS_IPC_OVERLOADED, true};
    }
    if (connection_ == connection) {
        lose(io == Connection::Io::lost ? "the broker is gone" : "the broker takes nothing");
    }
    return {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, untouched};
}

void Endpoint::gather(Lock& lock, const Frame& frame) {
    interfaces::appendEncoded(frame, gathered_);
    if (gathered_.size() >= gatherBytes) {
        flushGathered(lock);
    }
}

// What cannot be sent now was promised all the same: the connection then counts
// as lost, which tells those who wait for it.
void Endpoint::flushGathered(Lock& lock) {
    changed_.wait(lock, [this] { return !sending_; });
    std::string bytes = std::exchange(gathered_, {});
    const std::shared_ptr<Connection> connection = connection_;
    if (connection != nullptr && !bytes.empty()) {
        Outgoing outgoing(bytes);
        if (pushBytes(lock, connection, outgoing).status == KAVRI_CORE_STATUS_IPC_OVERLOADED) {
            lose("the broker takes nothing");
        }
    }
    bytes.clear();
    if (gathered_.empty()) {
        gathered_ = std::move(bytes);  // its memory serves again
    }
}

// The broker takes nothing for now. It may be waiting for this side to take
// something: so what arrives is read meanwhile.
Connection::Io Endpoint::pushBlocked(Lock& lock, Connection& connection, Outgoing& outgoing) {
    const Clock::time_point deadline = Clock::now() + settings_.sendTimeout;
    sending_ = true;
    Connection::Io io = Connection::Io::wouldBlock;
    while (io == Connection::Io::wouldBlock && Clock::now() < deadline) {
        waitForRoom(lock, connection, deadline);
        if (connection_.get() != &connection) {
            io = Connection::Io::lost;
            break;
        }
        io = connection.write(outgoing.pieces, outgoing.count);
    }
    sending_ = false;
    changed_.notify_all();
    return io;
}

void Endpoint::waitForRoom(Lock& lock, Connection& connection, Deadline deadline) {
    handleFrames();  // makes room for more
    const bool reads = mayRead();
    reading_ = reading_ || reads;
    lock.unlock();
    connection.waitToWrite(waker_, reads, deadline);
    const Connection::Io io = reads ? connection.read() : Connection::Io::wouldBlock;
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
    const Connection::Io io =
        onlyLook ? connection->read() : connection->waitAndRead(waker_, deadline);
    lock.lock();
    handleInput(*connection, io);
}

// The end of a turn at reading: lets others read, and handle what came.
void Endpoint::handleInput(Connection& connection, Connection::Io io) {
    reading_ = false;
    if (woken_) {
        waker_.reset();
        woken_ = false;
    }
    if (io == Connection::Io::lost && connection_.get() == &connection) {
        lose("the broker closed it");
    }
    changed_.notify_all();
}

// The next frame of what has arrived; false when there is none.
bool Endpoint::handleNextFrame() {
    if (connection_ == nullptr || reading_) {
        return false;
    }
    const auto frame = connection_->nextFrame();
    if (!frame) {
        return false;
    }
    if (frame->type == FrameType::goodbye) {
        log().info("the broker says goodbye: " + std::string((*frame)[Field::payload]));
    } else {
        Text payload = connection_->takeLargePayload();
        handleFrame(*frame, payload);
    }
    changed_.notify_all();
    return true;
}

void Endpoint::handleFrames() {
    while (handleNextFrame()) {
    }
}

void Endpoint::lose(std::string_view reason) {
    handleFrames();           // what has arrived counts
    connection_->shutDown();  // whoever waits for it wakes up
    connection_ = nullptr;
    gathered_.clear();
    log().warning("lost the connection to the broker at " + settings_.address + ": " +
                  std::string(reason));
    connectionLost();
    changed_.notify_all();
}

void Endpoint::announce() {
    if (reading_ && !woken_) {
        woken_ = true;
        waker_.wake();
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

void Endpoint::noteSend() {
    if (thread_.joinable() && !isOwnThread()) {
        lastSend_ = Clock::now();
    }
}

void Endpoint::deliverAfterBurst(Lock& lock) {
    if (lastSend_ == Clock::time_point()) {
        deliver(lock);
        return;
    }
    const Clock::time_point now = Clock::now();
    if (!deliveryDue_) {
        deliveryDue_ = now + interfaces::burstLimit;
    }
    const Clock::time_point burstEnd = std::min(lastSend_ + interfaces::burstPause, *deliveryDue_);
    if (now < burstEnd) {
        changed_.wait_until(lock, burstEnd);
        return;
    }
    deliver(lock);
}

void Endpoint::runThread() {
    Lock lock = acquire();
    std::chrono::milliseconds pause = interfaces::firstReconnectPause;
    while (!ending_) {
        if (hasCallback() && becomesReady([this] { return hasDelivery(); })) {
            deliverAfterBurst(lock);
            continue;
        }
        deliveryDue_.reset();
        if (!gathered_.empty()) {
            flushGathered(lock);
        } else if (!hasCallback()) {
            changed_.wait(lock);
        } else if (connection_ != nullptr) {
            pause = interfaces::firstReconnectPause;
            waitUntil(lock, {}, [this] { return ending_ || hasDelivery() || !hasCallback(); });
        } else if (connectIfNeeded(lock) != KAVRI_CORE_STATUS_NO_ERROR) {
            changed_.wait_for(lock, pause);
            pause = std::min(pause * 2, interfaces::lastReconnectPause);
        }
    }
}

}  // namespace kavri::core
