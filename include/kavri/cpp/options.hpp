// How initiators and responders reach the broker, and what they say of their connection.
#ifndef KAVRI_CPP_OPTIONS_HPP
#define KAVRI_CPP_OPTIONS_HPP

#include <kavri/ipc.h>

#include <chrono>
#include <functional>
#include <kavri/cpp/callback.hpp>
#include <kavri/cpp/status.hpp>
#include <kavri/cpp/text.hpp>
#include <limits>
#include <optional>
#include <string>

namespace kavri {

// See kavri_core_ipc_connection_event.
using ConnectionEvent = kavri_core_ipc_connection_event;

// See kavri_core_ipc_connection_change.
struct ConnectionChange {
    ConnectionEvent event;
    Status status;
    // Valid during the call.
    TextView reason;
    // Of a restored connection: for how long there was none.
    std::chrono::milliseconds disconnected;
};
using ConnectionCallback = std::function<void(const ConnectionChange&)>;

// Of a request that gets no response; see kavri_core_ipc_outcome_callback.
struct Outcome {
    // The request's, valid during the call.
    TextView uuid;
    Status status;
};
using OutcomeCallback = std::function<void(const Outcome&)>;

// What may differ from the defaults; see kavri_core_ipc_options.
struct Options {
    // Path of the broker's socket. None: the rule in ipc.h.
    std::optional<std::string> brokerAddress{};
    // Whole milliseconds up to UINT_MAX, 49 days; what is above that is cut. Zero: 5 s for
    // connecting, 10 s for sending. Below zero is an INVALID_ARGUMENT.
    std::chrono::milliseconds connectTimeout{0};
    std::chrono::milliseconds sendTimeout{0};
    // What callbacks send is gathered, and written together.
    bool gatherWrites = false;
    // Called for each change of the connection, from before the constructor has returned to
    // the end. See kavri.hpp on callbacks.
    ConnectionCallback connectionCallback{};
    // Of an initiator: called for each request that gets no response. Receives do not return
    // the failures of requests then, and Initiator::request is not available.
    OutcomeCallback outcomeCallback{};
    // Null: log lines carry the name "kavri". See Logging.
    kavri_core_logging_cookie logging = nullptr;
};

namespace detail {

using ConnectionWatch = Callback<const ConnectionChange&>;

inline void connectionChanged(const kavri_core_ipc_connection_change* change,
                              void* context) noexcept {
    ConnectionWatch::call(context, {change->event, change->status, change->reason,
                                    std::chrono::milliseconds(change->disconnectedMs)});
}

using OutcomeWatch = Callback<const Outcome&>;

inline void requestEnded(const char* uuid, Status status, void* context) noexcept {
    OutcomeWatch::call(context, {uuid, status});
}

// The functions of the options, for as long as the C interface may call them.
struct Watches {
    ConnectionWatch::Owner connection;
    OutcomeWatch::Owner outcome;

    Watches() = default;
    explicit Watches(const Options& options)
        : connection(ConnectionWatch::make(options.connectionCallback)),
          outcome(OutcomeWatch::make(options.outcomeCallback)) {}
};

// What the init functions take, from options and watches that must outlive it.
inline Status read(const Options& options, const Watches& watches, kavri_core_ipc_options& native) {
    constexpr std::chrono::milliseconds none{0};
    constexpr std::chrono::milliseconds longest{std::numeric_limits<unsigned>::max()};
    if (options.connectTimeout < none || options.sendTimeout < none) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    const auto within = [=](std::chrono::milliseconds time) {
        return static_cast<unsigned>((time < longest ? time : longest).count());
    };
    native = {};
    native.sizeBytes = sizeof native;
    native.brokerAddress =
        options.brokerAddress ? TextView(*options.brokerAddress).c_str() : nullptr;
    native.connectTimeoutMs = within(options.connectTimeout);
    native.sendTimeoutMs = within(options.sendTimeout);
    native.gatherWrites = options.gatherWrites ? 1 : 0;
    native.connectionCallback = watches.connection ? connectionChanged : nullptr;
    native.connectionContext = watches.connection.get();
    native.outcomeCallback = watches.outcome ? requestEnded : nullptr;
    native.outcomeContext = watches.outcome.get();
    return KAVRI_CORE_STATUS_NO_ERROR;
}

}  // namespace detail

}  // namespace kavri

#endif
