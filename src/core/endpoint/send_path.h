// The way of frames into the connection: accepted into one buffer, written from there in
// order, with as few writes as make good ones.
//
// Where the socket's buffer is full, one thread waits for room in it and owns the send buffer
// meanwhile; further senders wait for that thread. Guarded by the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_SEND_PATH_H
#define KAVRI_CORE_ENDPOINT_SEND_PATH_H

#include <cstddef>
#include <span>

#include "core/deadline.h"
#include "core/endpoint/monitor.h"
#include "core/endpoint/send_buffer.h"
#include "core/endpoint/shared_connection.h"
#include "core/pending_requests.h"

namespace kavri::core {

class SendPath {
  public:
    SendPath(Monitor& monitor, SharedConnection& connection)
        : monitor_(monitor), shared_(connection) {}

    // What a try to send came to, and whether not a byte of its frames was written.
    struct Result {
        kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
        bool isUntouched = true;
    };
    // Whether the frames must leave now, or may stay in the buffer until a flush or a frame
    // behind them.
    enum class When { now, gathered };

    // Sends as many of the frames as make a good write over the present connection; `sent`
    // rises by how many. Frames that are requests get their tokens from `pending`, where they
    // are added; others come with null.
    Result send(Lock& lock, std::span<wire::Frame> frames, PendingRequests* pending, When when,
                CallDeadline& deadline, std::size_t& sent);

    bool hasGathered() const { return !buffer_.isEmpty(); }
    // Writes what was gathered. What cannot be written was accepted all the same: the
    // connection then counts as lost, which its callers learn.
    void flush(Lock& lock, std::chrono::milliseconds timeout);

    // The connection is gone, and what was gathered with it.
    void connectionLost() { buffer_.clear(); }

  private:
    enum class State { idle, waitingForRoom };

    Result writeOut(Lock& lock, std::size_t earlierBytes, const wire::Frame* large,
                    CallDeadline& deadline);
    Connection::Io waitAndWrite(Lock& lock, Connection& connection, SendBuffer::Write& write,
                                CallDeadline& deadline);

    Monitor& monitor_;
    SharedConnection& shared_;
    SendBuffer buffer_;
    State state_ = State::idle;
};

}  // namespace kavri::core

#endif
