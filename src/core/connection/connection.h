// One connection to the broker: the library's only file that makes socket calls.
//
// One thread may read while another writes; whose turn each is, is decided outside. Nothing
// here blocks but open(), waitAndRead() and waitToWrite().
#ifndef KAVRI_CORE_CONNECTION_CONNECTION_H
#define KAVRI_CORE_CONNECTION_CONNECTION_H

#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <string>

#include "base/descriptor.h"
#include "core/connection/frame_reader.h"
#include "core/connection/socket_record.h"
#include "core/connection/waker.h"
#include "core/deadline.h"
#include "wire/spin.h"

namespace kavri::core {

class Connection {
  public:
    // Connects a socket, without a handshake. Gives up at the deadline, or when the waker is
    // woken. `record` outlives the connection.
    struct Opened {
        std::unique_ptr<Connection> connection;  // null after a failure
        bool outOfDescriptors = false;
        std::string reason;  // of the failure, in words
    };
    static Opened open(const std::string& address, const Waker& waker, Clock::time_point deadline,
                       SocketRecord& record);

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    // What was received, as frames.
    FrameReader& input() { return input_; }

    enum class Io { done, wouldBlock, lost };

    // Receives what has arrived. `lost` also after malformed input.
    Io read();
    // Likewise, after waiting until something arrives, the waker is woken or the time is
    // over. Spins for a moment before it sleeps, where that pays.
    Io waitAndRead(const Waker& waker, Deadline deadline);

    // Writes the pieces as far as the socket takes them, and shortens them by what it took.
    // `done` when nothing is left.
    Io write(iovec*& pieces, std::size_t& count);
    // Waits until there is room to write (or, where asked, something to read), the waker is
    // woken, or the time is over.
    void waitToWrite(const Waker& waker, bool orToRead, Deadline deadline);

    // No further byte goes either way, and every thread that waits for the socket wakes up.
    void shutDown();

  private:
    Connection(base::Descriptor descriptor, SocketRecord& record);

    base::Descriptor descriptor_;
    SocketRecord& record_;
    FrameReader input_;
    wire::Spin spin_;
    // Whether to read before waiting: the last wait found something there already.
    bool readsFirst_ = false;
};

}  // namespace kavri::core

#endif
