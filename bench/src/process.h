// The processes of a measurement: started together, gone together, and asked
// for what they used.
#ifndef KAVRI_BENCH_PROCESS_H
#define KAVRI_BENCH_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <vector>

namespace kavri::bench {

// A process that ends with this object, or with this process at the latest.
class Child {
  public:
    struct Start {
        std::vector<std::string> command;
        std::string logFile;          // what it says on standard error, and on output too
        bool readsOutput = false;     // output comes to outputLine instead
        std::vector<int> keptOpen{};  // descriptors that it inherits
    };

    explicit Child(const Start& start);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    pid_t id() const { return id_; }
    bool isRunning();
    // The next line of its output; throws when none comes.
    std::string outputLine();
    // Asks it to end; killed when it does not.
    void stop();

  private:
    [[noreturn]] void run(const Start& start, int outputEnd) const;

    std::string name_;
    std::string logFile_;
    pid_t id_ = -1;
    int output_ = -1;
};

// This program once more, with other arguments.
std::vector<std::string> ownCommand(std::vector<std::string> arguments);

// Waits until `isReady`, while `child` runs; throws with what it said otherwise.
void waitUntilReady(Child& child, const std::function<bool()>& isReady);
bool acceptsConnections(const std::string& socketPath);

// What a process has used so far, all threads together.
struct Usage {
    std::uint64_t processorNs = 0;
    std::uint64_t wakeUps = 0;
    std::uint64_t proportionalBytes = 0;
    std::uint64_t residentBytes = 0;
};
Usage usageOf(pid_t process);
// Of this process, at next to no cost; memory is left out.
Usage ownUsage();

// Ends this process with the reason, as main() does, for threads that have no
// caller to throw to: neither libraries in C nor a thread's entry function.
[[noreturn]] void failMeasurement(const std::exception& failure);
template <typename Action>
void failMeasurementOnException(const Action& action) noexcept {
    try {
        action();
    } catch (const std::exception& failure) {
        failMeasurement(failure);
    }
}

// Everything from now on runs on one processor: the last that is allowed.
void pinToOneProcessor();
void raiseDescriptorLimit();

}  // namespace kavri::bench

#endif
