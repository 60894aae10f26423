// The changes of a connection that its program has not been called for yet.
//
// A ring of fixed size, so that recording a loss allocates nothing; where it is full, the
// oldest change is dropped. Not thread-safe: guarded by the endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_CONNECTION_CHANGES_H
#define KAVRI_CORE_ENDPOINT_CONNECTION_CHANGES_H

#include <array>
#include <chrono>
#include <cstddef>
#include <string_view>

#include "base/assert.h"
#include "kavri/ipc.h"

namespace kavri::core {

struct ConnectionChange {
    kavri_core_ipc_connection_event event = KAVRI_CORE_IPC_CONNECTION_MADE;
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    std::array<char, 200> reason{};
    std::chrono::milliseconds disconnected{};

    ConnectionChange() = default;
    ConnectionChange(kavri_core_ipc_connection_event itsEvent, kavri_core_status itsStatus,
                     std::string_view itsReason, std::chrono::milliseconds itsDisconnected = {})
        : event(itsEvent), status(itsStatus), disconnected(itsDisconnected) {
        itsReason.copy(reason.data(), reason.size() - 1);
    }
};

class ConnectionChanges {
  public:
    static constexpr std::size_t capacity = 16;

    bool isEmpty() const { return count_ == 0; }

    void add(const ConnectionChange& change) {
        changes_[(first_ + count_) % capacity] = change;
        if (count_ < capacity) {
            ++count_;
        } else {
            first_ = (first_ + 1) % capacity;
        }
    }

    const ConnectionChange& oldest() const {
        KAVRI_ASSERT(!isEmpty(), "there is a change");
        return changes_[first_];
    }
    ConnectionChange take() {
        const ConnectionChange taken = oldest();
        first_ = (first_ + 1) % capacity;
        --count_;
        return taken;
    }

  private:
    std::array<ConnectionChange, capacity> changes_;
    std::size_t first_ = 0;
    std::size_t count_ = 0;
};

}  // namespace kavri::core

#endif
