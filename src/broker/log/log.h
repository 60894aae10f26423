// The broker's log: lines on a descriptor, written by a thread of its own.
//
// Logging never blocks and is bounded, whatever peers do and whether or not anybody
// reads the log: messages pass a limiter (log_limiter.h), then a queue of limited
// length whose oldest lines are dropped and counted when it is full. The thread
// sleeps while there is nothing to write; it wakes by itself only for a summary
// that is due. spdlog's own asynchronous logger does not serve here: its thread
// wakes every ten seconds, and its end waits for a reader for ever.
#ifndef KAVRI_BROKER_LOG_LOG_H
#define KAVRI_BROKER_LOG_LOG_H

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace kavri::broker {

class LogQueue;

// Takes what is logged with spdlog's default logger, as lines "NAME: MESSAGE".
class Log {
  public:
    // How long its end waits for lines to be written that nobody reads.
    static constexpr std::chrono::milliseconds longestFlush{1000};

    Log(const std::string& name, int descriptor);
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    ~Log();

    // Whether a message of this kind may be logged now; it is counted otherwise. For
    // messages that a peer can cause with each frame: asked first, this spares the
    // cost of formatting them.
    bool admits(std::string_view kind) const;

  private:
    const std::shared_ptr<LogQueue> queue_;
    std::thread writer_;
};

}  // namespace kavri::broker

#endif
