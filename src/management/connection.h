// A connection to a broker in the role of a manager, without the core library: what asks how
// a broker is doing depends on as little as possible.
//
// Nothing waits beyond the deadline that the caller gives, whatever the other side does.
// Everything that goes wrong is a Failure.
#ifndef KAVRI_MANAGEMENT_CONNECTION_H
#define KAVRI_MANAGEMENT_CONNECTION_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "management/failure.h"
#include "wire/frame.h"

namespace kavri::management {

using Clock = std::chrono::steady_clock;

class Connection {
  public:
    // Connects, and says hello. `path`: of the broker's socket.
    Connection(const std::string& path, Clock::time_point deadline);

    const std::string& path() const { return path_; }
    // Of the broker, another one each time it is started.
    const std::string& identity() const { return identity_; }
    // Readable when there is something to receive, unless buffered frames are left.
    int descriptor() const { return socket_.get(); }

    void send(const wire::Frame& frame);

    // The next frame; its fields are valid until the next call. A goodbye is a Failure.
    wire::Frame receive(Clock::time_point deadline);

    // The same without waiting: nothing where no frame is complete.
    std::optional<wire::Frame> receiveNow();

    // What answers is no broker of ours.
    [[noreturn]] void failAsNonsense() const;

  private:
    void connect(Clock::time_point deadline);
    void greet(Clock::time_point deadline);
    std::optional<wire::Frame> takeBuffered();
    bool readSome();
    bool waitToRead(Clock::time_point deadline) const;
    [[noreturn]] void fail(FailureKind kind, const std::string& what) const;
    [[noreturn]] void failToConnect(int error) const;
    [[noreturn]] void failAsSilent() const;
    [[noreturn]] void failByGoodbye(const wire::Frame& goodbye) const;

    const std::string path_;
    std::chrono::milliseconds allowed_;
    base::Descriptor socket_;
    std::string identity_;
    std::vector<char> input_;
    std::size_t begin_ = 0;  // of what was not received yet, in `input_`
    std::size_t end_ = 0;
    std::size_t taken_ = 0;  // bytes of the frame that was received last
};

}  // namespace kavri::management

#endif
