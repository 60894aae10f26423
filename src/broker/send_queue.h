// What is queued to be written to one peer, in order.
//
// A queue of slices of blocks. Small frames are copied behind one another into
// one block, so that they leave in one write; large ones, and many events that
// come together, are slices of a block that all who get them share. An empty
// send queue owns no memory.
#ifndef KAVRI_BROKER_SEND_QUEUE_H
#define KAVRI_BROKER_SEND_QUEUE_H

#include <sys/uio.h>

#include <cstddef>
#include <list>
#include <string_view>

#include "broker/account.h"
#include "broker/buffer.h"
#include "interfaces/frame.h"

namespace kavri::broker {

class SendQueue {
  public:
    // What is queued is charged to `account`; of a block that many queues share, its
    // bytes to each.
    SendQueue(BufferPool& pool, Account& account) : pool_(pool), charge_(account) {}
    SendQueue(const SendQueue&) = delete;
    SendQueue& operator=(const SendQueue&) = delete;
    ~SendQueue() { clear(); }

    std::size_t bytes() const { return charge_.bytes(); }
    bool empty() const { return charge_.bytes() == 0; }

    void append(const interfaces::Frame& frame);
    void appendCopy(std::string_view bytes);
    void appendShared(const BlockRef& block, std::size_t length);  // from its beginning

    // Up to `most` pieces of what comes next; how many there are.
    std::size_t gather(iovec* pieces, std::size_t most) const;
    void consume(std::size_t bytes);
    void clear();

  private:
    BufferPool& pool_;
    std::list<Slice> slices_;
    Charge charge_;
};

}  // namespace kavri::broker

#endif
