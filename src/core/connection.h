// One connection to the broker: the library's only file that makes socket calls.
//
// Whoever may read and whoever may write is decided outside: one thread may read
// while another writes, and nothing here waits but open() and the two waits.
#ifndef KAVRI_CORE_CONNECTION_H
#define KAVRI_CORE_CONNECTION_H

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/deadline.h"
#include "core/message.h"
#include "interfaces/frame.h"
#include "interfaces/spin.h"
#include "kavri/core.h"

namespace kavri::core {

// The status of a frame; one that this library does not know is a later version's.
inline kavri_core_status statusIn(const interfaces::Frame& frame) {
    return frame.status <= KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN
               ? static_cast<kavri_core_status>(frame.status)
               : KAVRI_CORE_STATUS_IPC_INCOMPATIBLE;
}

// Likewise of a frame that tells of a failure; `otherwise` where it names none.
inline kavri_core_status failureIn(const interfaces::Frame& frame, kavri_core_status otherwise) {
    const kavri_core_status status = statusIn(frame);
    return status == KAVRI_CORE_STATUS_NO_ERROR ? otherwise : status;
}

// Wakes a thread that waits for a connection.
class Waker {
  public:
    Waker();
    Waker(const Waker&) = delete;
    Waker& operator=(const Waker&) = delete;
    ~Waker();

    void wake();   // the next wait, or the one under way, ends at once
    void reset();  // what was woken so far no longer counts
    bool isWoken() const;
    int descriptor() const { return descriptor_; }

  private:
    int descriptor_;
};

class Connection {
  public:
    // A connection that was not to be had, and why in words.
    struct Opened {
        kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
        std::string reason;
        std::unique_ptr<Connection> connection;
    };

    // Connects, says hello as `role`, and, where `servedCategory` is not empty,
    // registers for it. Gives up at the deadline, or when the waker is woken.
    static Opened open(const std::string& address, std::string_view role,
                       std::string_view servedCategory, const Waker& waker,
                       Clock::time_point deadline);

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    std::size_t payloadLimitBytes() const { return payloadLimitBytes_; }

    enum class Io { done, wouldBlock, lost };

    // Takes in what has arrived.
    Io read();
    // Likewise, after waiting until something arrives, the waker is woken or the
    // time is over. Tries again for a moment before it sleeps.
    Io waitAndRead(const Waker& waker, Deadline deadline);
    // The next whole frame of what was taken in, the same one until it is dropped, valid
    // until the next read. After malformed bytes there is none, and reading says that the
    // connection is lost.
    std::optional<interfaces::Frame> nextFrame();
    // The memory of that frame's payload, where it has some of its own; may be moved from.
    Text& largePayload() { return largePayload_; }
    void dropFrame();

    // Writes the pieces as far as the socket takes them, and shortens them by
    // what it took. `done` when nothing is left.
    Io write(iovec*& pieces, std::size_t& count);
    // Waits until there is room to write (or, where asked, something to read),
    // the waker is woken, or the time is over.
    void waitToWrite(const Waker& waker, bool orToRead, Deadline deadline);

    // No further byte goes either way, and whoever waits wakes up.
    void shutDown();
    // Closes this process's descriptor alone: the connection of a process that forked this
    // one stays as it is.
    void closeCopy();

  private:
    Connection();

    // Why the handshake failed; empty when it did not.
    struct Refusal {
        kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
        std::string reason;
    };
    // How long each step of it may take, and who may cut it short.
    struct Patience {
        const Waker& waker;
        Clock::time_point deadline;
    };
    Refusal greet(std::string_view role, Patience patience);
    Refusal registerFor(std::string_view category, Patience patience);
    // The answer is the next frame, for the caller to drop.
    Refusal exchange(const interfaces::Frame& frame, interfaces::FrameType expected,
                     Patience patience, interfaces::Frame& answer);
    void readGrantedLimits(std::string_view text);
    void makeRoom();
    ssize_t readSome();
    void beginLarge(interfaces::Extent extent);
    std::optional<interfaces::Frame> decoded(const char* bytes, const char* payload = nullptr);

    int descriptor_ = -1;  // -1: none yet, or closed
    std::size_t payloadLimitBytes_;
    interfaces::Spin spin_;
    // Whether to read before waiting: the last wait found that something was there.
    bool looksFirst_ = false;

    // Received and not handed out yet: [begin, end).
    std::unique_ptr<char[]> input_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t frameBytes_ = 0;  // of the next frame, once it is decoded; 0 for a large one
    bool malformed_ = false;

    // A large frame that is coming in: its payload goes straight to where its
    // receiver will have it.
    bool largeBegun_ = false;
    std::string largeHead_;  // what goes before the payload
    Text largePayload_;
    std::size_t largeBytes_ = 0;
    std::size_t largeFilled_ = 0;
};

}  // namespace kavri::core

#endif
