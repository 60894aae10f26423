// Memory set aside for when there is no more: closing a connection, which frees
// what it held, takes a little itself.
//
// Installed as the process' new-handler, which gives the reserve up once and lets
// the allocation that failed be tried again; with the reserve gone, it fails.
#ifndef KAVRI_BROKER_MEMORY_RESERVE_H
#define KAVRI_BROKER_MEMORY_RESERVE_H

namespace kavri::broker {

class MemoryReserve {
  public:
    MemoryReserve();
    MemoryReserve(const MemoryReserve&) = delete;
    MemoryReserve& operator=(const MemoryReserve&) = delete;
    ~MemoryReserve();

    // Sets memory aside again, as far as there is any.
    void restore();
    bool isThere() const;
};

}  // namespace kavri::broker

#endif
