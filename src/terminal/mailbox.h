// What callbacks pass on from the library's thread to a command's own, which waits for it
// together with signals and descriptors.
//
// Where the command does not keep up, put waits for room: the library then reads no further,
// so that the back-pressure reaches the broker, and the memory stays bounded.
#ifndef KAVRI_TERMINAL_MAILBOX_H
#define KAVRI_TERMINAL_MAILBOX_H

#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <system_error>
#include <utility>

#include "base/descriptor.h"

namespace kavri::terminal {

template <typename Message>
class Mailbox {
  public:
    static constexpr unsigned capacity = 256;

    Mailbox() : ready_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!ready_.isOpen()) {
            throw std::system_error(errno, std::generic_category(), "cannot make an event");
        }
    }

    // Readable while there are messages.
    int descriptor() const { return ready_.get(); }

    // Drops the message once the mailbox is closed.
    void put(Message message) {
        std::unique_lock lock(mutex_);
        hasRoom_.wait(lock, [this] { return messages_.size() < capacity || isClosed_; });
        if (isClosed_) {
            return;
        }
        messages_.push_back(std::move(message));
        const std::uint64_t one = 1;
        static_cast<void>(!write(ready_.get(), &one, sizeof one));
    }

    std::deque<Message> take() {
        const std::lock_guard lock(mutex_);
        std::uint64_t count = 0;
        static_cast<void>(!read(ready_.get(), &count, sizeof count));
        hasRoom_.notify_all();
        return std::exchange(messages_, {});
    }

    // Releases a put that waits: before the end of what the callback belongs to, which waits
    // for the callback.
    void close() {
        const std::lock_guard lock(mutex_);
        isClosed_ = true;
        hasRoom_.notify_all();
    }

    // Closes it at the end of its life.
    class Closing {
      public:
        explicit Closing(Mailbox& mailbox) : mailbox_(mailbox) {}
        Closing(const Closing&) = delete;
        Closing& operator=(const Closing&) = delete;
        ~Closing() { mailbox_.close(); }

      private:
        Mailbox& mailbox_;
    };

  private:
    base::Descriptor ready_;
    std::mutex mutex_;
    std::condition_variable hasRoom_;
    std::deque<Message> messages_;
    bool isClosed_ = false;
};

}  // namespace kavri::terminal

#endif
