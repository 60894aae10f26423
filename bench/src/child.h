// The further processes of a measurement: servers, services and whatever loads them.
#ifndef KAVRI_BENCH_CHILD_H
#define KAVRI_BENCH_CHILD_H

#include <functional>
#include <string>
#include <vector>

#include "process/child_process.h"

namespace kavri::bench {

// Asked to end when this is destroyed; ends with this process at the latest.
class Child {
  public:
    struct Start {
        std::vector<std::string> command;
        std::string logFile;          // gets its standard error, and its output too
        bool readsOutput = false;     // output goes to outputLine instead
        std::vector<int> keptOpen{};  // descriptors that it inherits
    };

    explicit Child(const Start& start);
    Child(Child&&) noexcept = default;
    Child& operator=(Child&&) = delete;
    ~Child();

    pid_t id() const { return process_.pid(); }
    void signal(int number) { process_.signal(number); }
    // The next line of its output; throws when none comes.
    std::string outputLine();
    // Waits until `isReady`, while it runs; throws with its log otherwise.
    void waitUntilReady(const std::function<bool()>& isReady);

  private:
    [[noreturn]] void throwWithLog() const;

    std::string name_;
    std::string logFile_;
    process::ChildProcess process_;
};

// This program once more, with other arguments.
std::vector<std::string> ownCommand(std::vector<std::string> arguments);

bool acceptsConnections(const std::string& socketPath);

}  // namespace kavri::bench

#endif
