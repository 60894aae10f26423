// What a fault knows of the calls before, and the messages that it keeps for later.
#ifndef KAVRI_CONFORMANCE_FAULTS_FAULT_MEMORY_H
#define KAVRI_CONFORMANCE_FAULTS_FAULT_MEMORY_H

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "conformance/agent/calls.h"

namespace kavri::conformance {

// The strings of a message, owned by the probe and allocated with malloc: in the end
// they become the module's, or are freed.
using OwnFields = std::array<char*, fieldCount>;

struct KeptDelivery {
    Delivery delivery;
    OwnFields fields{};
};

// Of one initiator: the module has one at a time.
struct FaultMemory {
    std::array<unsigned, functionCount> calls{};
    unsigned responses = 0;  // that receives have returned
    bool callbackInstalled = false;
    bool counterAsked = false;
    std::optional<std::array<std::string, fieldCount>> keptSend;
    std::deque<OwnFields> keptResponses;
    std::deque<KeptDelivery> keptDeliveries;
    std::optional<std::string> lastPayload;
};

// Guarded by the mutex, which is never held while the library or the module runs.
// Outlives the process' statics: a callback may still run then.
inline FaultMemory& faultMemory = *new FaultMemory;
inline std::mutex faultMemoryMutex;

// Frees what is kept. The caller holds the mutex.
inline void clearFaultMemory() {
    for (const OwnFields& fields : faultMemory.keptResponses) {
        std::ranges::for_each(fields, std::free);
    }
    for (const KeptDelivery& kept : faultMemory.keptDeliveries) {
        std::ranges::for_each(kept.fields, std::free);
    }
    faultMemory = {};
}

// Removes and returns the first of a queue; nothing where it is empty.
template <typename Queue>
std::optional<typename Queue::value_type> takeFirst(Queue FaultMemory::*queue) {
    const std::lock_guard lock(faultMemoryMutex);
    if ((faultMemory.*queue).empty()) {
        return std::nullopt;
    }
    const auto first = (faultMemory.*queue).front();
    (faultMemory.*queue).pop_front();
    return first;
}

template <typename Queue>
void keep(Queue FaultMemory::*queue, const typename Queue::value_type& entry) {
    const std::lock_guard lock(faultMemoryMutex);
    (faultMemory.*queue).push_back(entry);
}

}  // namespace kavri::conformance

#endif
