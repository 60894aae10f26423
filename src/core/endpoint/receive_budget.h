// How much the library may hold of what its caller has not received yet. At the limit it
// stops reading, and further messages stay in the socket. Not thread-safe: guarded by the
// endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_RECEIVE_BUDGET_H
#define KAVRI_CORE_ENDPOINT_RECEIVE_BUDGET_H

#include <cstddef>

#include "base/assert.h"
#include "wire/limits.h"

namespace kavri::core {

class ReceiveBudget {
  public:
    bool isUsedUp() const { return queuedBytes_ >= wire::libraryQueueBytes; }

    void queued(std::size_t bytes) { queuedBytes_ += bytes; }
    // Returns whether there is room again, where there was none.
    bool dequeued(std::size_t bytes) {
        KAVRI_ASSERT(bytes <= queuedBytes_, "a message leaves the queue once");
        const bool wasUsedUp = isUsedUp();
        queuedBytes_ -= bytes;
        return wasUsedUp && !isUsedUp();
    }

  private:
    std::size_t queuedBytes_ = 0;
};

}  // namespace kavri::core

#endif
