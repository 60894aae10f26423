// The broker's log; see log.h.
#include "broker/log/log.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "broker/log/log_limiter.h"

namespace kavri::broker {

// What both threads share. Owned by both, since a writer that is stuck in a write
// outlives the log.
class LogQueue {
  public:
    explicit LogQueue(std::string name) : prefix_(std::move(name) + ": ") {}

    void add(std::string_view message) {
        const std::scoped_lock lock(mutex_);
        if (admitLocked(message)) {
            push(printable(message));
            changed_.notify_all();
        }
    }
    bool admit(std::string_view kind) {
        const std::scoped_lock lock(mutex_);
        return admitLocked(kind);
    }

    // The next line; waits for one. Nothing once all was taken and the log ends.
    std::optional<std::string> take() {
        std::unique_lock lock(mutex_);
        while (true) {
            const auto now = LogLimiter::Clock::now();
            pushAll(isEnding_ ? limiter_.takeAllSummaries(now) : limiter_.takeSummaries(now));
            if (dropped_ > 0) {
                return prefix_ + std::to_string(std::exchange(dropped_, 0)) +
                       " lines dropped: they were not read in time\n";
            }
            if (!lines_.empty()) {
                std::string line = std::move(lines_.front());
                lines_.pop_front();
                bytes_ -= line.size();
                return line;
            }
            if (isEnding_) {
                isFinished_ = true;
                changed_.notify_all();
                return std::nullopt;
            }
            if (const auto next = limiter_.nextSummary()) {
                changed_.wait_until(lock, *next);
            } else {
                changed_.wait(lock);
            }
        }
    }

    // Whether all was taken within the time.
    bool finish(std::chrono::milliseconds time) {
        std::unique_lock lock(mutex_);
        isEnding_ = true;
        changed_.notify_all();
        return changed_.wait_for(lock, time, [this] { return isFinished_; });
    }

  private:
    static constexpr std::size_t mostBytes = 65536;

    // Wakes the writer where it is to write a summary sooner than it knew.
    bool admitLocked(std::string_view message) {
        const auto summary = limiter_.nextSummary();
        const bool admitted = limiter_.admit(message, LogLimiter::Clock::now());
        if (limiter_.nextSummary() != summary) {
            changed_.notify_all();
        }
        return admitted;
    }
    void push(const std::string& message) {
        lines_.push_back(prefix_ + message + "\n");
        bytes_ += lines_.back().size();
        while (bytes_ > mostBytes) {
            bytes_ -= lines_.front().size();
            lines_.pop_front();
            ++dropped_;
        }
    }
    void pushAll(const std::vector<std::string>& messages) {
        for (const std::string& message : messages) {
            push(message);
        }
    }

    const std::string prefix_;
    std::mutex mutex_;
    std::condition_variable changed_;
    LogLimiter limiter_;
    std::deque<std::string> lines_;
    std::size_t bytes_ = 0;
    std::size_t dropped_ = 0;
    bool isEnding_ = false;
    bool isFinished_ = false;
};

namespace {

class QueueSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
  public:
    explicit QueueSink(std::shared_ptr<LogQueue> queue) : queue_(std::move(queue)) {}

  private:
    void sink_it_(const spdlog::details::log_msg& message) override {
        queue_->add({message.payload.data(), message.payload.size()});
    }
    void flush_() override {}

    const std::shared_ptr<LogQueue> queue_;
};

// May block for as long as nobody reads. A line that cannot be written is lost.
void writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd waited{descriptor, POLLOUT, 0};
            ::poll(&waited, 1, -1);
        } else if (errno != EINTR) {
            return;
        }
    }
}

// Signals are for the thread of the event loop.
template <typename Run>
std::thread startWithoutSignals(Run run) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(std::move(run));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace

Log::Log(const std::string& name, int descriptor) : queue_(std::make_shared<LogQueue>(name)) {
    writer_ = startWithoutSignals([queue = queue_, descriptor] {
        while (const auto line = queue->take()) {
            writeAll(descriptor, *line);
        }
    });
    spdlog::set_default_logger(
        std::make_shared<spdlog::logger>(name, std::make_shared<QueueSink>(queue_)));
}

bool Log::admits(std::string_view kind) const {
    return queue_->admit(kind);
}

Log::~Log() {
    // A writer that is still stuck ends with the process.
    queue_->finish(longestFlush) ? writer_.join() : writer_.detach();
}

}  // namespace kavri::broker
