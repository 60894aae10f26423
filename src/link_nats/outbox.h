// What is published, and not handed to libnats yet.
//
// With encryption, libnats does not return from a write before the kernel has taken all that
// it was handed. So it is handed little at a time, and only while the kernel takes more.
#ifndef KAVRI_LINK_NATS_OUTBOX_H
#define KAVRI_LINK_NATS_OUTBOX_H

#include <cstddef>
#include <deque>
#include <string>
#include <utility>

namespace kavri::link_nats {

struct Outgoing {
    std::string subject;
    std::string replyTo;
    std::string data;
};

class Outbox {
  public:
    bool isEmpty() const { return messages_.empty(); }
    std::size_t bytes() const { return bytes_; }
    const Outgoing& first() const { return messages_.front(); }

    void push(Outgoing message) {
        bytes_ += sizeOf(message);
        messages_.push_back(std::move(message));
    }
    void pop() {
        bytes_ -= sizeOf(first());
        messages_.pop_front();
    }
    void clear() {
        messages_.clear();
        bytes_ = 0;
    }

  private:
    static std::size_t sizeOf(const Outgoing& message) {
        return message.subject.size() + message.replyTo.size() + message.data.size();
    }

    std::deque<Outgoing> messages_;
    std::size_t bytes_ = 0;
};

}  // namespace kavri::link_nats

#endif
