// A program that this process runs: starts it, captures its output, waits for its end
// and ends it. The tool, the tests and the benchmarks start every program by it.
//
// A ChildProcess that is destroyed while its program still runs kills and reaps it, so
// nothing is left behind on any path: processes that the program started and left in its
// process group end with it, and a crash writes no core file. If the thread that started
// it ends, the kernel kills the program: start it from a thread that lives long enough.
#ifndef KAVRI_PROCESS_CHILD_PROCESS_H
#define KAVRI_PROCESS_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "base/pipe.h"
#include "process/program_start.h"

namespace kavri::process {

// How a program ended.
struct ExitState {
    int code = 0;    // exit status, where signal is 0
    int signal = 0;  // the signal that ended it, or 0
    bool succeeded() const { return signal == 0 && code == 0; }
};

class ChildProcess {
  public:
    // A program that prints without end must not use up this process' memory.
    static constexpr std::size_t captureLimitBytes = 64U << 20U;

    // Throws std::system_error, whose text names the program, if it cannot be started.
    explicit ChildProcess(const ChildSpawn& spawn);
    ChildProcess(ChildProcess&& other) noexcept { std::swap(state_, other.state_); }
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ~ChildProcess() { end(); }

    pid_t pid() const { return state_.pid; }

    // Becomes readable when the program has ended; for a caller's own poll.
    int endedDescriptor() const { return state_.ended.get(); }
    // The reading end of the captured standard output or error; -1 once at its end.
    int outputDescriptor() const { return state_.outputPipe.get(); }
    int errorDescriptor() const { return state_.errorPipe.get(); }

    // Reads what there is, without waiting. output() and error() return what was captured
    // so far, each up to captureLimitBytes; what comes after that is lost.
    void drain();
    const std::string& output() const { return state_.output; }
    const std::string& error() const { return state_.error; }
    // The same, and drops it: for output without end.
    std::string takeOutput() { return std::exchange(state_.output, {}); }
    std::string takeError() { return std::exchange(state_.error, {}); }

    // Drains until the output (or error) contains `text`, the program has ended, or the
    // time is over. True when the text is there.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds limit) {
        return waitForText(state_.output, text, limit);
    }
    bool waitForError(const std::string& text, std::chrono::milliseconds limit) {
        return waitForText(state_.error, text, limit);
    }
    // Removes the next line from the output and returns it; nothing where none comes.
    std::optional<std::string> waitForLine(std::chrono::milliseconds limit);

    // Drains until the program has ended, and reaps it. Nothing when the time
    // is over first; the program then still runs. Can be called again.
    std::optional<ExitState> wait(std::chrono::milliseconds limit);

    // To a program that has not been reaped; otherwise nothing.
    void signal(int number);
    // Asks the program to end (SIGTERM), and kills it where it has not ended in time.
    void stop(std::chrono::milliseconds limit);

  private:
    using Clock = std::chrono::steady_clock;

    struct State {
        pid_t pid = -1;  // -1: moved from
        base::Descriptor ended;
        base::Descriptor outputPipe;
        base::Descriptor errorPipe;
        std::string output;
        std::string error;
        std::optional<ExitState> exit;
        int interrupt = -1;
    };

    bool isRunning() const { return state_.pid > 0 && !state_.exit; }
    bool waitForText(const std::string& captured, const std::string& text,
                     std::chrono::milliseconds limit);
    void pollUntil(Clock::time_point deadline) const;
    bool mayWaitUntil(Clock::time_point deadline) const;
    void reap(int waitOption);
    void end();

    State state_;
};

}  // namespace kavri::process

#endif
