// What an endpoint has accepted for sending and not written yet: one buffer, so that
// frames leave in the order in which they were accepted, however they were sent.
//
// No I/O: the owner writes the bytes and says how far it came. Not thread-safe: guarded
// by the endpoint's lock.
#ifndef KAVRI_CORE_SEND_BUFFER_H
#define KAVRI_CORE_SEND_BUFFER_H

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <string>

#include "interfaces/frame.h"
#include "interfaces/limits.h"

namespace kavri::core {

class SendBuffer {
  public:
    // A write of this size costs as much as its bytes do, not more for being one write.
    static constexpr std::size_t writeBytes = 64 * interfaces::kibibyte;

    std::size_t size() const { return bytes_.size(); }
    bool isEmpty() const { return bytes_.empty(); }
    bool isWorthAWrite() const { return size() >= writeBytes; }

    // Appends a frame; true where it is a large one. Of that only the header is copied: its
    // fields must leave in the same write, from where they are. Strong guarantee.
    bool append(const interfaces::Frame& frame);

    // Keeps the first `size` bytes only.
    void truncate(std::size_t size) { bytes_.resize(size); }
    // The first `count` bytes have left.
    void consume(std::size_t count) { bytes_.erase(0, count); }
    void clear() { bytes_.clear(); }

    // The whole buffer and, behind it, the fields of a large frame, as pieces to be
    // written. `pieces` and `count` advance with the write.
    struct Write {
        std::array<iovec, 1 + interfaces::fieldCount> storage{};
        iovec* pieces = storage.data();
        std::size_t count = 1;
        std::size_t total = 0;

        std::size_t written() const;
    };
    // Valid until the buffer changes; `large` may be null.
    void prepare(Write& write, const interfaces::Frame* large);

  private:
    std::string bytes_;
};

}  // namespace kavri::core

#endif
