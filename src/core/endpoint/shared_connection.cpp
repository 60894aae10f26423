// Turns at reading, and frames in their order; see shared_connection.h.
#include "core/endpoint/shared_connection.h"

#include <exception>
#include <new>
#include <thread>

#include "core/connection/frame_status.h"

namespace kavri::core {

using Io = Connection::Io;

void SharedConnection::set(std::shared_ptr<Connection> made) {
    KAVRI_ASSERT(!isConnected(), "a new connection takes the place of one that is gone");
    KAVRI_ASSERT(isUnread(), "the reader of the connection before has left");
    connection_ = std::move(made);
    ++number_;
    goodbye_.reset();
}

void SharedConnection::lose(std::string_view reason) {
    KAVRI_ASSERT(isConnected(), "a connection is lost once");
    try {
        handleAll();
    } catch (const std::bad_alloc&) {
        // The outcome of what could not be stored is unknown, like that of the rest.
    }
    connection_->shutDown();  // other threads that wait for it wake up
    connection_ = nullptr;
    events_.connectionLost(goodbye_ ? Loss{goodbye_->reason, goodbye_->status, true}
                                    : Loss{.reason = reason});
    monitor_.notifyAll();
}

void SharedConnection::read(Lock& lock, Waiting waiting, Deadline deadline) {
    monitor_.expectHeld(lock);
    const std::shared_ptr<Connection> connection = connection_;
    turn_.begin();
    lock.unlock();
    auto io = Io::wouldBlock;
    std::exception_ptr failure;
    try {
        io = waiting == Waiting::yes ? connection->waitAndRead(waker_, deadline)
                                     : connection->read();
    } catch (...) {
        failure = std::current_exception();
    }
    lock.lock();
    endTurn(*connection, io);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void SharedConnection::waitToWrite(Lock& lock, Connection& connection, Deadline deadline) {
    monitor_.expectHeld(lock);
    bool reads = false;
    try {
        handleAll();  // makes room for more
        reads = mayRead();
    } catch (const std::bad_alloc&) {
        // The frame stays where it is; there may be memory for it later.
    }
    if (reads) {
        turn_.begin();
    }
    lock.unlock();
    connection.waitToWrite(waker_, reads, deadline);
    auto io = Io::wouldBlock;
    try {
        io = reads ? connection.read() : io;
    } catch (const std::bad_alloc&) {
        std::this_thread::yield();  // what arrived stays in the socket until there is memory
    }
    lock.lock();
    if (reads) {
        endTurn(connection, io);
    }
}

void SharedConnection::endTurn(Connection& connection, Io io) {
    turn_.end();
    if (io == Io::lost && connection_.get() == &connection) {
        lose("the broker closed the connection");
    }
    monitor_.notifyAll();
}

// False when there is none. After an exception the frame is still the next.
bool SharedConnection::handleNextFrame() {
    if (!isConnected() || !turn_.isFree()) {
        return false;
    }
    FrameReader& input = connection_->input();
    const auto frame = input.nextFrame();
    if (!frame) {
        return false;
    }
    if (frame->type == wire::FrameType::goodbye) {
        goodbye_ = {std::string((*frame)[wire::Field::payload]),
                    failureIn(*frame, KAVRI_CORE_STATUS_IPC_CONNECTION_LOST)};
    } else {
        events_.frameReceived(*frame, input.largePayload());
    }
    input.dropFrame();
    monitor_.notifyAll();
    return true;
}

}  // namespace kavri::core
