// Waiting in tests: for conditions, never for time.
//
// A condition that comes true is seen within a millisecond; the patience is only
// spent by a test that fails.
#ifndef KAVRI_TESTS_SUPPORT_WAITING_H
#define KAVRI_TESTS_SUPPORT_WAITING_H

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace kavri::tests {

inline constexpr std::chrono::seconds patience{40};
inline constexpr int patienceMs = 40'000;

template <typename Condition>
bool eventually(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The state letter in a thread's stat file: "S" for one that sleeps. Empty when
// the thread is gone.
inline std::string stateIn(const std::string& statFile) {
    std::ifstream file(statFile);
    std::string line;
    std::getline(file, line);
    const std::size_t name = line.rfind(") ");
    return name == std::string::npos ? std::string() : line.substr(name + 2, 1);
}

// Threads of this process besides the main one. The thread sanitizer has one of
// its own, from the first thread of the program's on, which is not counted.
inline std::size_t furtherThreads() {
#if defined(__SANITIZE_THREAD__)
    constexpr std::ptrdiff_t known = 2;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    constexpr std::ptrdiff_t known = 2;
#else
    constexpr std::ptrdiff_t known = 1;
#endif
#else
    constexpr std::ptrdiff_t known = 1;
#endif
    const auto all = std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    return static_cast<std::size_t>(std::max<std::ptrdiff_t>(all - known, 0));
}

// A thread that was joined is listed for a moment longer.
inline bool haveFurtherThreads(std::size_t count) {
    return eventually([count] { return furtherThreads() == count; });
}

// Open in this process.
inline std::size_t openDescriptors() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// Runs a call that is to block, on a thread whose sleep can be waited for.
class BlockedCall {
  public:
    template <typename Call>
    explicit BlockedCall(Call call)
        : thread_([this, call = std::move(call)] {
              id_ = static_cast<pid_t>(::syscall(SYS_gettid));
              call();
              returned_ = true;
          }) {}

    // Whether the call came to sleep without returning.
    bool sleeps() const {
        return eventually([this] {
                   return returned_ || (id_ != 0 && stateIn("/proc/self/task/" +
                                                            std::to_string(id_) + "/stat") == "S");
               }) &&
               !returned_;
    }
    bool hasReturned() const { return returned_; }
    void join() { thread_.join(); }

  private:
    std::atomic<pid_t> id_{0};
    std::atomic<bool> returned_{false};
    std::jthread thread_;  // the last to come, the first to go
};

}  // namespace kavri::tests

#endif
