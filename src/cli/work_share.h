// Pieces of work that several threads do side by side.
#ifndef KAVRI_CLI_WORK_SHARE_H
#define KAVRI_CLI_WORK_SHARE_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <optional>

namespace kavri::cli {

class WorkShare {
  public:
    // So many pieces, numbered from 0.
    explicit WorkShare(std::size_t count) : count_(count) {}

    // The number of a piece that nobody has taken yet; nothing when there is no more
    // to be done. Any thread may call it.
    std::optional<std::size_t> take();
    // Nothing is taken any more. Any thread may call it.
    void stop() { stopped_ = true; }

    // Runs this on so many threads at a time, and waits for all. When it throws
    // nothing is taken any more, and once all have ended the first exception is
    // thrown on.
    void runOn(unsigned threads, const std::function<void()>& lane);

  private:
    const std::size_t count_;
    std::atomic<std::size_t> taken_{0};
    std::atomic<bool> stopped_{false};
};

}  // namespace kavri::cli

#endif
