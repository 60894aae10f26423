// The initiator: requests out, responses and events in.
#ifndef KAVRI_CPP_INITIATOR_HPP
#define KAVRI_CPP_INITIATOR_HPP

#include <kavri/ipc.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <kavri/cpp/callback.hpp>
#include <kavri/cpp/message.hpp>
#include <kavri/cpp/options.hpp>
#include <kavri/cpp/status.hpp>
#include <kavri/cpp/text.hpp>
#include <kavri/cpp/timeout.hpp>
#include <memory>
#include <optional>
#include <utility>

namespace kavri {

using ResponseCallback = std::function<void(Response)>;
using EventCallback = std::function<void(Event)>;

// One request of a batch.
using Command = kavri_core_ipc_command;

// A batch of which not all was sent.
class BatchError : public Error {
  public:
    BatchError(Status status, std::size_t sent) : Error(status, "sending requests"), sent_(sent) {}

    // How many of the requests were sent. The status is that of the next.
    std::size_t sent() const noexcept { return sent_; }

  private:
    std::size_t sent_;
};

// Functions named "try…" return their status; the others throw Error with it. Which statuses
// these are, and for how long a function blocks, the C function says that it names. All may
// be called from any thread and from within callbacks, except where it is said. An initiator
// can be moved, while no thread is in a call with it; of one that was moved from or closed,
// every call comes to INVALID_ARGUMENT.
class Initiator {
  public:
    // kavri_core_ipc_initiator_init: connects to the broker. Waits for it for at most
    // connectTimeout.
    explicit Initiator(const Options& options = {}) {
        throwOnFailure(open(options), "connecting an initiator");
    }
    static Result<Initiator> tryConnect(const Options& options = {}) {
        Initiator made{Unopened()};
        const Status status = made.open(options);
        return status == KAVRI_CORE_STATUS_NO_ERROR ? Result<Initiator>(std::move(made)) : status;
    }
    Initiator(Initiator&& other) noexcept { swap(other); }
    Initiator& operator=(Initiator&& other) noexcept {
        Initiator(std::move(other)).swap(*this);
        return *this;
    }
    ~Initiator() { close(); }

    // kavri_core_ipc_deinit: ends it before its destructor does, which is the same
    // otherwise. No other thread may be in a call with it. Waits for a callback under way,
    // except from within it.
    void close() noexcept {
        kavri_core_ipc_deinit(handle_);  // until then a callback may use it
        handle_ = nullptr;
        parts_.reset();
    }
    bool isOpen() const noexcept { return handle_ != nullptr; }
    // For the C functions; stays this object's. Callbacks are not to be changed by it.
    kavri_core_ipc_initiator* handle() const noexcept { return handle_; }

    // kavri_core_ipc_initiator_command_send: sends one request, without waiting for its
    // response.
    void send(TextView category, TextView identifier, TextView uuid, TextView payload) {
        throwOnFailure(trySend(category, identifier, uuid, payload), "sending a request");
    }
    Status trySend(TextView category, TextView identifier, TextView uuid,
                   TextView payload) noexcept {
        return kavri_core_ipc_initiator_command_send(handle_, category.c_str(), identifier.c_str(),
                                                     uuid.c_str(), payload.c_str());
    }

    // kavri_core_ipc_initiator_command_send_batch: sends several requests, an array, vector
    // or the like of commands, in order. Throws BatchError.
    template <typename Commands>
    void sendBatch(const Commands& commands) {
        std::size_t sent = 0;
        const Status status = trySendBatch(commands, sent);
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            throw BatchError(status, sent);
        }
    }
    // Sets `sent` in any case.
    template <typename Commands>
    Status trySendBatch(const Commands& commands, std::size_t& sent) noexcept {
        sent = 0;
        return kavri_core_ipc_initiator_command_send_batch(handle_, std::data(commands),
                                                           std::size(commands), &sent);
    }

    // kavri_core_ipc_initiator_response_receive: the next response. Nothing, or
    // IPC_NO_MESSAGE, where none comes in time. Other failures are those of the receive, or
    // of a request that was sent before.
    std::optional<Response> receive(Timeout timeout = forever) {
        Strings strings;
        const Status status = receive(timeout, strings);
        if (status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE) {
            return std::nullopt;
        }
        throwOnFailure(status, "receiving a response");
        return strings.response();
    }
    Result<Response> tryReceive(Timeout timeout = forever) noexcept {
        Strings strings;
        const Status status = receive(timeout, strings);
        return status == KAVRI_CORE_STATUS_NO_ERROR ? Result<Response>(strings.response()) : status;
    }

    // Sends a request, with a uuid of its own making, and receives the response to it.
    // Responses and failures of the initiator's other requests are dropped meanwhile: so
    // while one thread is in this call, no other may receive from this initiator, or be in
    // this call; each may have an initiator of its own. Waits for the response for as long
    // as `timeout`, after the send; in vain where the responder ends the request without an
    // answer.
    //
    // The failures of send and receive, of which IPC_NO_MESSAGE means that the time is over:
    // what became of the request is unknown then. INVALID_ARGUMENT on an initiator with an
    // outcome callback, which gets the failures in its place.
    Response request(TextView category, TextView identifier, TextView payload,
                     Timeout timeout = forever) {
        Result<Response> result = tryRequest(category, identifier, payload, timeout);
        throwOnFailure(result.status(), "a request");
        return *std::move(result);
    }
    Result<Response> tryRequest(TextView category, TextView identifier, TextView payload,
                                Timeout timeout = forever) noexcept;

    // kavri_core_ipc_initiator_response_receive_callback: has every response passed to a
    // function, in place of the one before; an empty function removes it. See kavri.hpp on
    // callbacks.
    void onResponse(ResponseCallback callback) {
        throwOnFailure(tryOnResponse(std::move(callback)), "installing a response callback");
    }
    Status tryOnResponse(ResponseCallback callback) {
        if (!isOpen()) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
        const auto install = [handle = handle_](void* context) {
            return kavri_core_ipc_initiator_response_receive_callback(
                handle, context != nullptr ? responded : nullptr, context);
        };
        return parts_->response.replace(std::move(callback), install);
    }

    // kavri_core_ipc_initiator_event_subscribe: in effect on return. Waits for the broker for
    // at most sendTimeout.
    void subscribe(TextView category) { throwOnFailure(trySubscribe(category), "subscribing"); }
    Status trySubscribe(TextView category) noexcept {
        return kavri_core_ipc_initiator_event_subscribe(handle_, category.c_str());
    }

    // kavri_core_ipc_initiator_event_unsubscribe: whatever it comes to, no further event of
    // the category is delivered.
    void unsubscribe(TextView category) {
        throwOnFailure(tryUnsubscribe(category), "unsubscribing");
    }
    Status tryUnsubscribe(TextView category) noexcept {
        return kavri_core_ipc_initiator_event_unsubscribe(handle_, category.c_str());
    }

    // kavri_core_ipc_initiator_event_receive_callback: as onResponse. Events that come while
    // there is no function are dropped: install one, then subscribe.
    void onEvent(EventCallback callback) {
        throwOnFailure(tryOnEvent(std::move(callback)), "installing an event callback");
    }
    Status tryOnEvent(EventCallback callback) {
        if (!isOpen()) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
        const auto install = [handle = handle_](void* context) {
            return kavri_core_ipc_initiator_event_receive_callback(
                handle, context != nullptr ? published : nullptr, context);
        };
        return parts_->event.replace(std::move(callback), install);
    }

  private:
    // What stays in place when this is moved.
    struct Parts {
        detail::CallbackSlot<Response> response;
        detail::CallbackSlot<Event> event;
        detail::Watches watches;
    };
    struct Unopened {};

    // As the C function stores them.
    struct Strings {
        char* category = nullptr;
        char* identifier = nullptr;
        char* uuid = nullptr;
        char* payload = nullptr;

        Response response() const noexcept { return {category, identifier, uuid, payload}; }
    };

    explicit Initiator(Unopened) noexcept {}

    Status receive(Timeout timeout, Strings& strings) noexcept {
        return kavri_core_ipc_initiator_response_receive(handle_, timeout.milliseconds(),
                                                         &strings.category, &strings.identifier,
                                                         &strings.uuid, &strings.payload);
    }

    Status open(const Options& options) {
        parts_ = std::make_unique<Parts>();
        parts_->watches = detail::Watches(options);
        kavri_core_ipc_options native{};
        const Status status = detail::read(options, parts_->watches, native);
        return status == KAVRI_CORE_STATUS_NO_ERROR
                   ? kavri_core_ipc_initiator_init(options.logging, &native, &handle_)
                   : status;
    }

    void swap(Initiator& other) noexcept {
        std::swap(handle_, other.handle_);
        std::swap(parts_, other.parts_);
        std::swap(requests_, other.requests_);
    }

    static void responded(char** category, char** identifier, char** uuid, char** payload,
                          void* context) noexcept {
        detail::Callback<Response>::call(context,
                                         Response(*category, *identifier, *uuid, *payload));
    }
    static void published(char** category, char** identifier, char** payload,
                          void* context) noexcept {
        detail::Callback<Event>::call(context, Event(*category, *identifier, *payload));
    }

    Status lastFailure(Status failure) noexcept;

    kavri_core_ipc_initiator* handle_ = nullptr;
    std::unique_ptr<Parts> parts_;
    std::uint64_t requests_ = 0;  // how many request() has sent
};

inline Result<Response> Initiator::tryRequest(TextView category, TextView identifier,
                                              TextView payload, Timeout timeout) noexcept {
    using Clock = std::chrono::steady_clock;
    if (!isOpen() || parts_->watches.outcome) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    std::array<char, 21> uuid{};
    std::to_chars(uuid.data(), uuid.data() + uuid.size() - 1, ++requests_);
    const Status sent = trySend(category, identifier, uuid.data(), payload);
    if (sent != KAVRI_CORE_STATUS_NO_ERROR) {
        return sent;
    }
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout.milliseconds());
    for (Timeout left = timeout;;
         left = timeout.isUnlimited() ? forever : deadline - Clock::now()) {
        Result<Response> result = tryReceive(left);
        if (!result && result.status() != KAVRI_CORE_STATUS_IPC_NO_MESSAGE) {
            return lastFailure(result.status());
        }
        if (!result || result->uuid() == TextView(uuid.data())) {
            return result;
        }
    }
}

// Failures are received in the order of the requests, and only when no later request is
// pending: so that of the request sent last comes last, behind those of requests whose time
// was over before.
inline Status Initiator::lastFailure(Status failure) noexcept {
    Status last = failure;
    while (failure == KAVRI_CORE_STATUS_IPC_NO_RESPONDER ||
           failure == KAVRI_CORE_STATUS_IPC_REFUSED || failure == KAVRI_CORE_STATUS_IPC_TOO_LARGE ||
           failure == KAVRI_CORE_STATUS_IPC_OVERLOADED ||
           failure == KAVRI_CORE_STATUS_IPC_RESPONDER_LOST ||
           failure == KAVRI_CORE_STATUS_IPC_CONNECTION_LOST) {
        last = failure;
        failure = tryReceive(std::chrono::milliseconds(0)).status();
    }
    return last;
}

}  // namespace kavri

#endif
