// What came in over a link for a session and cannot be handled yet.
#ifndef KAVRI_BROKER_LINK_INBOX_H
#define KAVRI_BROKER_LINK_INBOX_H

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "broker/memory/account.h"

namespace kavri::broker {

class Inbox {
  public:
    explicit Inbox(Account& account) : charge_(account) {}

    bool empty() const { return messages_.empty(); }
    std::size_t bytes() const { return charge_.bytes(); }

    void add(std::string_view content) {
        messages_.emplace_back(content);
        charge_.grow(content.size());
    }
    std::string take() {
        std::string content = std::move(messages_.front());
        messages_.pop_front();
        charge_.shrink(content.size());
        return content;
    }

  private:
    std::deque<std::string> messages_;
    Charge charge_;
};

}  // namespace kavri::broker

#endif
