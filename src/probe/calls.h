// A call of the module on its way to the library, and a delivery of the library
// on its way to the module: what a fault sees, and may change.
#ifndef KAVRI_PROBE_CALLS_H
#define KAVRI_PROBE_CALLS_H

#include <kavri/ipc.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>

#include "probe/functions.h"

namespace kavri::probe {

// The places of the strings of a message. An event has no uuid.
enum Text : std::size_t { categoryText, identifierText, uuidText, payloadText };
inline constexpr std::size_t textCount = 4;

struct Call {
    Function function{};
    // Makes the real call with what stands in here.
    std::function<kavri_core_status(const Call&)> forward;

    std::array<const char*, textCount> sent{};  // of a send
    int timeoutMs = 0;                          // of a receive, and where it stores
    std::array<char**, textCount> received{};
    bool installs = false;  // of the two callback functions: not a removal

    unsigned number = 0;  // in the record

    // What went before.
    unsigned ordinal = 0;            // of the function's calls for this initiator, from 1
    unsigned ordinalInProcess = 0;   // and in all
    unsigned responsesBefore = 0;    // that receives have handed out for this initiator
    bool callbackInstalled = false;  // for responses
    bool countAsked = false;         // by the command sent last
};

enum class Stream { response, event };

// A callback of the module, as it was installed. What the library gets in its
// place leads here. Kept for good: a library that calls it after its removal is
// the module's to notice.
struct Installation {
    Stream stream{};
    kavri_core_ipc_initiator_response_callback responseCallback = nullptr;
    kavri_core_ipc_initiator_event_callback eventCallback = nullptr;
    void* context = nullptr;
    std::atomic<unsigned> deliveries{0};
};

struct Delivery {
    const Installation* installation = nullptr;
    std::array<char**, textCount> texts{};
    void* context = nullptr;
    unsigned number = 0;   // in the record
    unsigned ordinal = 0;  // of this installation's deliveries, from 1
};

// Calls the module's callback, on this thread, and records it.
void handOver(const Delivery& delivery);

}  // namespace kavri::probe

#endif
