// Memory set aside for closing a connection when memory has run out: the goodbye needs
// a little before the connection's own memory is freed.
//
// Installed as the process' new-handler, which frees the reserve once and has the failed
// allocation retried. Once the reserve is used up, allocations fail.
#ifndef KAVRI_BROKER_MEMORY_MEMORY_RESERVE_H
#define KAVRI_BROKER_MEMORY_MEMORY_RESERVE_H

namespace kavri::broker {

class MemoryReserve {
  public:
    MemoryReserve();
    MemoryReserve(const MemoryReserve&) = delete;
    MemoryReserve& operator=(const MemoryReserve&) = delete;
    ~MemoryReserve();

    // Sets memory aside again, if there is any.
    void restore();
    bool isThere() const;
};

}  // namespace kavri::broker

#endif
