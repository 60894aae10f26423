// The sentences; see interface_rules.h.
#include "conformance/cases/interface_rules.h"

#include <algorithm>
#include <array>

namespace kavri::conformance {

namespace {

constexpr std::string_view ipc = "ipc.h";
constexpr std::string_view core = "core.h";

constexpr std::string_view callbacks =
    "Callbacks run one at a time per initiator or responder, on a thread of the library's own in "
    "which all signals are blocked.";

constexpr std::array rules = {
    InterfaceRule{"one-callback-at-a-time", ipc, callbacks},
    InterfaceRule{"callback-thread", ipc, callbacks},
    InterfaceRule{"callback-signals", ipc, callbacks},
    InterfaceRule{"callback-after-removal", ipc,
                  "On return, no call of the callback before it is running or will be made; from "
                  "within a callback, that call alone is still running."},
    InterfaceRule{"callback-after-end", ipc,
                  "Ends an initiator: removes its callbacks, drops its subscriptions and the "
                  "responses that were not received, closes the connection, frees it."},
    InterfaceRule{"released-at-the-end", ipc,
                  "Ends an initiator: removes its callbacks, drops its subscriptions and the "
                  "responses that were not received, closes the connection, frees it."},
    InterfaceRule{"handle-after-end", ipc,
                  "No other thread may be in a call with it, or make one afterwards."},
    InterfaceRule{"refused-stores-nothing", ipc, "Without NO_ERROR the variables are left alone."},
    InterfaceRule{"failed-init-stores-nothing", ipc, "*initiator is null after a failure."},
    InterfaceRule{"failed-logging-stores-nothing", core,
                  "cookie: the caller's variable, left alone on failure."},
    InterfaceRule{"initiator-stored", ipc,
                  "Connects a new initiator to the broker and stores it in *initiator."},
    InterfaceRule{"cookie-stored", core, "Opens a logging context and stores it in *cookie."},
    InterfaceRule{"response-stored", ipc,
                  "Takes the next response, in the order of arrival, and stores its strings in the "
                  "four variables, without releasing what they held."},
    InterfaceRule{"response-strings", ipc,
                  "*payload is null where the response has none; the other three strings are "
                  "always there."},
    InterfaceRule{"event-strings", ipc, "Ownership as above; all three strings are always there."},
    InterfaceRule{"allocated-strings", ipc,
                  "Received strings are allocated one by one with malloc."},
    InterfaceRule{"subscribed-events", ipc,
                  "Events that a responder publishes reach the initiators that subscribed to its "
                  "category."},
};

constexpr std::string_view subscribing =
    "NO_ERROR; INVALID_ARGUMENT; IPC_TOO_LARGE; IPC_REFUSED; IPC_OVERLOADED (no acknowledgement in "
    "time, or too many subscriptions); IPC_BROKER_UNAVAILABLE; IPC_CONNECTION_LOST; "
    "OUT_OF_RESOURCES.";
constexpr std::string_view installing = "NO_ERROR; INVALID_ARGUMENT; OUT_OF_RESOURCES.";

constexpr std::array lists = {
    StatusList{"kavri_core_init", core, "Does not block. NO_ERROR."},
    StatusList{"kavri_core_deinit", core,
               "NO_ERROR; NOT_INITIALISED when every init has been undone already."},
    StatusList{
        "kavri_core_logging_init", core,
        "NO_ERROR; INVALID_ARGUMENT (name or cookie null); NOT_INITIALISED; OUT_OF_RESOURCES."},
    StatusList{"kavri_core_logging_deinit", core, "NO_ERROR; INVALID_ARGUMENT (cookie null)."},
    StatusList{"kavri_core_ipc_initiator_init", ipc,
               "NO_ERROR; INVALID_ARGUMENT (initiator null, options too small); NOT_INITIALISED; "
               "OUT_OF_RESOURCES; IPC_ADDRESS_INVALID; IPC_BROKER_UNAVAILABLE (no broker listens "
               "there, or no welcome in time); IPC_INCOMPATIBLE; IPC_REFUSED (this user may not "
               "connect); IPC_OVERLOADED (the broker has as many connections as it may)."},
    StatusList{"kavri_core_ipc_deinit", ipc, "NO_ERROR; INVALID_ARGUMENT (initiator null)."},
    StatusList{"kavri_core_ipc_initiator_command_send", ipc,
               "NO_ERROR (written to the broker's socket); INVALID_ARGUMENT; IPC_TOO_LARGE; "
               "IPC_OVERLOADED (no room in the socket within sendTimeoutMs, or too many pending "
               "requests); IPC_BROKER_UNAVAILABLE; IPC_CONNECTION_LOST; OUT_OF_RESOURCES."},
    StatusList{"kavri_core_ipc_initiator_response_receive", ipc,
               "NO_ERROR; INVALID_ARGUMENT; IPC_FAILED (a response callback is installed; returned "
               "at once whatever the time-out); IPC_NO_MESSAGE (none within the time-out); "
               "IPC_NO_RESPONDER, IPC_REFUSED, IPC_OVERLOADED (a request was not delivered); "
               "IPC_TOO_LARGE (likewise: the responder is on another machine, and the way there "
               "takes no message of this size); "
               "IPC_RESPONDER_LOST, IPC_CONNECTION_LOST (a request's outcome is unknown, or the "
               "connection broke during this call); IPC_BROKER_UNAVAILABLE (no connection, and "
               "none to be had); OUT_OF_RESOURCES."},
    StatusList{"kavri_core_ipc_initiator_response_receive_callback", ipc, installing},
    StatusList{"kavri_core_ipc_initiator_event_subscribe", ipc, subscribing},
    StatusList{"kavri_core_ipc_initiator_event_unsubscribe", ipc,
               "NO_ERROR; the failures of subscribe.", subscribing},
    StatusList{"kavri_core_ipc_initiator_event_receive_callback", ipc, installing},
};

// By their numbers.
constexpr std::array<std::string_view, 17> statuses = {"NO_ERROR",
                                                       "INVALID_ARGUMENT",
                                                       "NOT_INITIALISED",
                                                       "OUT_OF_RESOURCES",
                                                       "IPC_FAILED",
                                                       "IPC_NO_MESSAGE",
                                                       "IPC_BROKER_UNAVAILABLE",
                                                       "IPC_ADDRESS_INVALID",
                                                       "IPC_INCOMPATIBLE",
                                                       "IPC_REFUSED",
                                                       "IPC_NO_RESPONDER",
                                                       "IPC_RESPONDER_LOST",
                                                       "IPC_CONNECTION_LOST",
                                                       "IPC_TOO_LARGE",
                                                       "IPC_OVERLOADED",
                                                       "IPC_CATEGORY_TAKEN",
                                                       "IPC_OTHER_PROCESS"};

}  // namespace

std::span<const InterfaceRule> interfaceRules() {
    return rules;
}

const InterfaceRule* findInterfaceRule(std::string_view name) {
    const auto* const found = std::ranges::find(rules, name, &InterfaceRule::name);
    return found != rules.end() ? found : nullptr;
}

bool StatusList::has(int status) const {
    const std::string_view name = statusName(status);
    return !name.empty() && listed.find(name) != std::string_view::npos;
}

std::span<const StatusList> statusLists() {
    return lists;
}

const StatusList* findStatusList(std::string_view function) {
    const auto* const found = std::ranges::find(lists, function, &StatusList::function);
    return found != lists.end() ? found : nullptr;
}

std::string_view statusName(int status) {
    return status >= 0 && status < static_cast<int>(statuses.size())
               ? statuses.at(static_cast<std::size_t>(status))
               : "";
}

}  // namespace kavri::conformance
