// The bytes to be written to one peer, in order: a queue of slices of blocks.
//
// Small frames are copied one after the other into one block, so that one write sends
// them all. Large frames, and many events that arrive together, are slices of a block
// that the queues of all their receivers share. An empty send queue owns no memory.
#ifndef KAVRI_BROKER_MEMORY_SEND_QUEUE_H
#define KAVRI_BROKER_MEMORY_SEND_QUEUE_H

#include <sys/uio.h>

#include <cstddef>
#include <list>
#include <string_view>

#include "broker/memory/account.h"
#include "broker/memory/buffer.h"
#include "wire/frame.h"

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

    void append(const wire::Frame& frame);
    void appendCopy(std::string_view bytes);
    void appendShared(const BlockRef& block, std::size_t length);  // from its beginning

    // Fills in up to `most` pieces from the front; returns how many.
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
