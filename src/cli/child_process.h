// Starts a program and keeps hold of it: its output, its end, and its ending.
//
// Used by the tool to run the broker and the module, and by the tests to run
// whatever they need. A ChildProcess that is destroyed while its program still
// runs ends it (SIGKILL) and reaps it, so nothing is left behind whatever way
// the caller takes: processes that the program started and left in its process
// group end with it, and a crash writes no core file. If the thread that
// started it dies, the kernel ends the program: start from a thread that lives
// as long as the program is to. Its standard input is empty.
#ifndef KAVRI_CLI_CHILD_PROCESS_H
#define KAVRI_CLI_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavri::cli {

// How a program ended.
struct ExitState {
    int code = 0;    // exit status, where signal is 0
    int signal = 0;  // the signal that ended it, or 0
    bool succeeded() const { return signal == 0 && code == 0; }
};

// What to start. The program is a path; nothing is searched in PATH.
struct ChildSpawn {
    std::filesystem::path program{};
    std::vector<std::string> arguments{};
    // Set in (or, as nullopt, removed from) a copy of this process' environment.
    std::map<std::string, std::optional<std::string>> environment{};
    // Output that is not captured goes where this process' own goes.
    bool captureOutput = true;
    bool captureError = true;
    // Open descriptors that the program gets too, under the same numbers.
    std::vector<int> inheritedDescriptors{};
    // Waiting for the program returns early while this is readable; -1: never.
    int interruptDescriptor = -1;
};

class ChildProcess {
  public:
    // Throws std::system_error, whose text names the program, if it cannot be started.
    explicit ChildProcess(const ChildSpawn& spawn);
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ~ChildProcess();

    pid_t pid() const;

    // Becomes readable when the program has ended; for a caller's own poll.
    int endedDescriptor() const;
    // The reading end of the captured standard output or error; -1 once at its end.
    int outputDescriptor() const;
    int errorDescriptor() const;

    // Takes in what is there to be read, without waiting. What was captured so
    // far is kept; output() and error() give all of it.
    void drain();
    const std::string& output() const;
    const std::string& error() const;
    // The same, and forgets it: for output without end.
    std::string takeOutput();
    std::string takeError();

    // Drains until `text` stands in the output (or error), the program has
    // ended, or the time is over. True when the text is there.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds limit);
    bool waitForError(const std::string& text, std::chrono::milliseconds limit);

    // Drains until the program has ended, and reaps it. Nothing when the time
    // is over first; the program then still runs. Can be called again.
    std::optional<ExitState> wait(std::chrono::milliseconds limit);

    // To a program that has not been reaped; otherwise nothing.
    void signal(int number);

  private:
    void end();

    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kavri::cli

#endif
