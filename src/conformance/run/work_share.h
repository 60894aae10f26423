// A number of tasks, shared by several threads.
#ifndef KAVRI_CONFORMANCE_RUN_WORK_SHARE_H
#define KAVRI_CONFORMANCE_RUN_WORK_SHARE_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <optional>

namespace kavri::conformance {

class WorkShare {
  public:
    // So many tasks, numbered from 0.
    explicit WorkShare(std::size_t count) : count_(count) {}

    // Takes the next task; nothing where none is left. Thread-safe.
    std::optional<std::size_t> take();
    // From now on take() returns nothing. Thread-safe.
    void stop() { stopped_ = true; }

    // Runs the function, which takes tasks until none is left, on so many threads and
    // waits for all. An exception stops them all, and is rethrown when they have ended.
    void runOn(unsigned threads, const std::function<void()>& takeAll);

  private:
    const std::size_t count_;
    std::atomic<std::size_t> taken_{0};
    std::atomic<bool> stopped_{false};
};

}  // namespace kavri::conformance

#endif
