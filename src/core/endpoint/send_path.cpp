// Frames into the buffer, the buffer into the connection; see send_path.h.
#include "core/endpoint/send_path.h"

namespace kavri::core {

using wire::Frame;
using Io = Connection::Io;

namespace {

// The reason of a loss: frames that were accepted could not be written in time.
constexpr std::string_view stalled = "the broker does not read what is sent to it";

}  // namespace

SendPath::Result SendPath::send(Lock& lock, std::span<Frame> frames, PendingRequests* pending,
                                When when, CallDeadline& deadline, std::size_t& sent) {
    monitor_.expectHeld(lock);
    const std::uint64_t number = shared_.number();
    while (state_ == State::waitingForRoom) {
        if (deadline.hasPassed()) {
            return {KAVRI_CORE_STATUS_IPC_OVERLOADED, true};
        }
        monitor_.wait(lock, deadline.at());
    }
    if (!shared_.isConnected(number)) {
        return {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, true};
    }
    const std::size_t earlierBytes = buffer_.size();
    const SendBuffer::Accepted accepted =
        buffer_.accept(frames, pending, shared_.current()->input().payloadLimitBytes());
    if (accepted.count == 0) {
        return {KAVRI_CORE_STATUS_IPC_TOO_LARGE, true};
    }
    Result result;
    if (accepted.large != nullptr || when == When::now || buffer_.isWorthAWrite()) {
        result = writeOut(lock, earlierBytes, accepted.large, deadline);
    }
    if (result.status == KAVRI_CORE_STATUS_NO_ERROR) {
        sent += accepted.count;
    } else if (pending != nullptr) {
        pending->takeBack(accepted.count);
    }
    return result;
}

// Writes the buffer, of which the first `earlierBytes` are of earlier calls. Where nothing of
// this call's was written, its frames are taken back.
SendPath::Result SendPath::writeOut(Lock& lock, std::size_t earlierBytes, const Frame* large,
                                    CallDeadline& deadline) {
    KAVRI_ASSERT(state_ == State::idle, "one thread writes at a time");
    const std::shared_ptr<Connection> connection = shared_.current();
    SendBuffer::Write write;
    buffer_.prepare(write, large);
    Io io = connection->write(write.pieces, write.count);
    if (io == Io::wouldBlock) {
        io = waitAndWrite(lock, *connection, write, deadline);
    }
    if (io == Io::done) {
        buffer_.clear();
        return {};
    }
    const bool isUntouched = write.written() <= earlierBytes;
    if (io == Io::wouldBlock && isUntouched) {
        buffer_.truncate(earlierBytes);
        buffer_.consume(write.written());
        return {KAVRI_CORE_STATUS_IPC_OVERLOADED, true};
    }
    if (shared_.current() == connection) {
        shared_.lose(io == Io::lost ? "the broker closed the connection" : stalled);
    }
    return {KAVRI_CORE_STATUS_IPC_CONNECTION_LOST, isUntouched};
}

Io SendPath::waitAndWrite(Lock& lock, Connection& connection, SendBuffer::Write& write,
                          CallDeadline& deadline) {
    state_ = State::waitingForRoom;
    auto io = Io::wouldBlock;
    while (io == Io::wouldBlock && !deadline.hasPassed()) {
        shared_.waitToWrite(lock, connection, deadline.at());
        io = shared_.current().get() == &connection ? connection.write(write.pieces, write.count)
                                                    : Io::lost;
    }
    state_ = State::idle;
    monitor_.notifyAll();
    return io;
}

void SendPath::flush(Lock& lock, std::chrono::milliseconds timeout) {
    monitor_.expectHeld(lock);
    monitor_.waitUntil(lock, [this] { return state_ == State::idle; });
    if (!shared_.isConnected() || buffer_.isEmpty()) {
        return;
    }
    CallDeadline deadline(timeout);
    if (writeOut(lock, 0, nullptr, deadline).status == KAVRI_CORE_STATUS_IPC_OVERLOADED) {
        shared_.lose(stalled);
    }
}

}  // namespace kavri::core
