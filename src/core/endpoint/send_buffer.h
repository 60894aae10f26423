// The frames that an endpoint has accepted for sending and not written yet: one buffer, so
// that they leave in the order in which they were accepted, gathered or not.
//
// No I/O: the owner writes the bytes and reports how many were written. Guarded by the
// endpoint's lock.
#ifndef KAVRI_CORE_ENDPOINT_SEND_BUFFER_H
#define KAVRI_CORE_ENDPOINT_SEND_BUFFER_H

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <span>
#include <string>

#include "core/pending_requests.h"
#include "wire/frame.h"
#include "wire/limits.h"

namespace kavri::core {

class SendBuffer {
  public:
    // A write of this size costs as much as its bytes do, not more for being one write.
    static constexpr std::size_t writeBytes = 64 * wire::kibibyte;

    std::size_t size() const { return bytes_.size(); }
    bool isEmpty() const { return bytes_.empty(); }
    bool isWorthAWrite() const { return size() >= writeBytes; }

    // Appends frames in order, as many as make a good write: it stops behind a large one, and
    // before one that is above a limit. Requests get their tokens from `pending` and are added
    // there before they are written: the first may be answered while the last has to wait for
    // room. Strong guarantee.
    struct Accepted {
        std::size_t count = 0;
        const wire::Frame* large = nullptr;  // the last of them, where it is large
    };
    Accepted accept(std::span<wire::Frame> frames, PendingRequests* pending,
                    std::size_t payloadLimitBytes);
    // Appends a frame; true where it is a large one. Of that only the header is copied: its
    // fields must leave in the same write, from where they are. Strong guarantee.
    bool append(const wire::Frame& frame);

    // Drops all but the first `size` bytes.
    void truncate(std::size_t size) { bytes_.resize(size); }
    // Drops the first `count` bytes, which were written.
    void consume(std::size_t count) { bytes_.erase(0, count); }
    void clear() { bytes_.clear(); }

    // The whole buffer and, behind it, the fields of a large frame, as pieces to be
    // written. `pieces` and `count` advance with the write.
    struct Write {
        std::array<iovec, 1 + wire::fieldCount> storage{};
        iovec* pieces = storage.data();
        std::size_t count = 1;
        std::size_t total = 0;

        std::size_t written() const;
    };
    // Valid until the buffer changes; `large` may be null.
    void prepare(Write& write, const wire::Frame* large);

  private:
    std::string bytes_;
};

}  // namespace kavri::core

#endif
