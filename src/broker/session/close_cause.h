// Why the broker closes a connection: the status in its goodbye, and what it is counted
// under.
#ifndef KAVRI_BROKER_SESSION_CLOSE_CAUSE_H
#define KAVRI_BROKER_SESSION_CLOSE_CAUSE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kavri/core.h"

namespace kavri::broker {

enum class CloseCause : std::uint8_t {
    leftByPeer,  // which closed it, or said goodbye
    stopping,
    otherVersion,
    malformed,
    lateHello,
    notPermitted,
    sendQueueFull,
    notDraining,
    incompleteFrame,
    shareUsedUp,
    outOfResources,
    eventsMissed,
};

struct CloseCauseFacts {
    std::string_view name;  // in a report
    kavri_core_status status;
};

// In the order of the causes.
inline constexpr std::array closeCauses = {
    CloseCauseFacts{"closed_by_peer", KAVRI_CORE_STATUS_NO_ERROR},
    CloseCauseFacts{"closed_stopping", KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE},
    CloseCauseFacts{"closed_other_version", KAVRI_CORE_STATUS_IPC_INCOMPATIBLE},
    CloseCauseFacts{"closed_malformed", KAVRI_CORE_STATUS_IPC_REFUSED},
    CloseCauseFacts{"closed_late_hello", KAVRI_CORE_STATUS_IPC_REFUSED},
    CloseCauseFacts{"closed_not_permitted", KAVRI_CORE_STATUS_IPC_REFUSED},
    CloseCauseFacts{"closed_send_queue_full", KAVRI_CORE_STATUS_IPC_OVERLOADED},
    CloseCauseFacts{"closed_not_draining", KAVRI_CORE_STATUS_IPC_OVERLOADED},
    CloseCauseFacts{"closed_incomplete_frame", KAVRI_CORE_STATUS_IPC_OVERLOADED},
    CloseCauseFacts{"closed_share_used_up", KAVRI_CORE_STATUS_IPC_OVERLOADED},
    CloseCauseFacts{"closed_out_of_resources", KAVRI_CORE_STATUS_OUT_OF_RESOURCES},
    CloseCauseFacts{"closed_events_missed", KAVRI_CORE_STATUS_IPC_CONNECTION_LOST},
};

inline kavri_core_status statusOf(CloseCause cause) {
    return closeCauses[static_cast<std::size_t>(cause)].status;
}

}  // namespace kavri::broker

#endif
