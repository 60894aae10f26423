// A call of the module on its way to the library, and a delivery of the library
// on its way to the module: what a fault sees, and may change.
#ifndef KAVRI_CONFORMANCE_AGENT_CALLS_H
#define KAVRI_CONFORMANCE_AGENT_CALLS_H

#include <kavri/ipc.h>

#include <array>
#include <atomic>
#include <barrier>
#include <cstddef>
#include <functional>

#include "conformance/agent/functions.h"

namespace kavri::conformance {

// The strings of a message, by their places in the signatures. An event has no uuid.
enum Field : std::size_t { categoryField, identifierField, uuidField, payloadField };
inline constexpr std::size_t fieldCount = 4;

struct Call {
    Function function{};
    // Makes the real call with what is in here.
    std::function<kavri_core_status(const Call&)> forward;

    std::array<const char*, fieldCount> sent{};  // of a send
    int timeoutMs = 0;                           // of a receive, and where it stores
    std::array<char**, fieldCount> received{};
    bool installs = false;  // of the two callback functions: not a removal

    unsigned number = 0;  // in the record

    // What was called before.
    unsigned ordinal = 0;            // of the function's calls for this initiator, from 1
    unsigned ordinalInProcess = 0;   // and in all
    unsigned responsesBefore = 0;    // that receives have returned for this initiator
    bool callbackInstalled = false;  // for responses
    bool counterAsked = false;       // by the command sent last
};

enum class Stream { response, event };

// A callback of the module, as it was installed. The library is given a function of
// the probe's own in its place, with this as the context. Never freed: a library may
// call it after its removal, which is for the module to notice.
struct Installation {
    Stream stream{};
    kavri_core_ipc_initiator_response_callback responseCallback = nullptr;
    kavri_core_ipc_initiator_event_callback eventCallback = nullptr;
    void* context = nullptr;
    const void* initiator = nullptr;
    std::atomic<unsigned> deliveries{0};
};

struct Delivery {
    // Calls the module's callback, on this thread, with what is in here, and records it.
    void (*forward)(const Delivery&) = nullptr;

    const Installation* installation = nullptr;
    std::array<char**, fieldCount> fields{};
    void* context = nullptr;
    unsigned number = 0;   // in the record
    unsigned ordinal = 0;  // of this installation's deliveries, from 1
    // Or null: calls the module's callback only once another delivery is as far.
    std::barrier<>* together = nullptr;
};

}  // namespace kavri::conformance

#endif
