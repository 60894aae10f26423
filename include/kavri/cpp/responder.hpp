// The responder: requests in, responses and events out.
#ifndef KAVRI_CPP_RESPONDER_HPP
#define KAVRI_CPP_RESPONDER_HPP

#include <kavri/ipc.h>

#include <functional>
#include <kavri/cpp/callback.hpp>
#include <kavri/cpp/message.hpp>
#include <kavri/cpp/options.hpp>
#include <kavri/cpp/status.hpp>
#include <kavri/cpp/text.hpp>
#include <kavri/cpp/timeout.hpp>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace kavri {

using RequestCallback = std::function<void(Request)>;

// Functions, threads and moving are as the initiator's. Several threads may receive and
// answer at the same time: ipc.h says how a responder works on several requests at once.
class Responder {
  public:
    // kavri_core_ipc_responder_init: connects to the broker and becomes the responder of
    // `category`. Waits for it for at most connectTimeout.
    explicit Responder(TextView category, const Options& options = {}) {
        throwOnFailure(open(category, options), "connecting a responder");
    }
    static Result<Responder> tryConnect(TextView category, const Options& options = {}) {
        Responder made{Unopened()};
        const Status status = made.open(category, options);
        return status == KAVRI_CORE_STATUS_NO_ERROR ? Result<Responder>(std::move(made)) : status;
    }
    Responder(Responder&& other) noexcept { swap(other); }
    Responder& operator=(Responder&& other) noexcept {
        Responder(std::move(other)).swap(*this);
        return *this;
    }
    ~Responder() { close(); }

    // kavri_core_ipc_responder_deinit: as Initiator::close. Requests that were not answered
    // come to their senders as IPC_RESPONDER_LOST.
    void close() noexcept {
        kavri_core_ipc_responder_deinit(handle_);  // until then a callback may use it
        handle_ = nullptr;
        parts_.reset();
    }
    bool isOpen() const noexcept { return handle_ != nullptr; }
    // For the C functions; stays this object's. Callbacks are not to be changed by it.
    kavri_core_ipc_responder* handle() const noexcept { return handle_; }
    // The category served; null where this was moved from.
    TextView category() const noexcept {
        return parts_ != nullptr ? parts_->category.c_str() : nullptr;
    }

    // kavri_core_ipc_responder_request_receive: the next request. Nothing, or IPC_NO_MESSAGE,
    // where none comes in time. IPC_FAILED while a request callback is installed; receives
    // that wait end with it at once, which is the way to end threads that receive.
    std::optional<Request> receive(Timeout timeout = forever) {
        Strings strings;
        const Status status = receive(timeout, strings);
        if (status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE) {
            return std::nullopt;
        }
        throwOnFailure(status, "receiving a request");
        return strings.request();
    }
    Result<Request> tryReceive(Timeout timeout = forever) noexcept {
        Strings strings;
        const Status status = receive(timeout, strings);
        return status == KAVRI_CORE_STATUS_NO_ERROR ? Result<Request>(strings.request()) : status;
    }

    // kavri_core_ipc_responder_request_receive_callback: has every request passed to a
    // function, in place of the one before; an empty function removes it. See kavri.hpp on
    // callbacks.
    void onRequest(RequestCallback callback) {
        throwOnFailure(tryOnRequest(std::move(callback)), "installing a request callback");
    }
    Status tryOnRequest(RequestCallback callback) {
        if (!isOpen()) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
        const auto install = [handle = handle_](void* context) {
            return kavri_core_ipc_responder_request_receive_callback(
                handle, context != nullptr ? requested : nullptr, context);
        };
        return parts_->request.replace(std::move(callback), install);
    }

    // kavri_core_ipc_responder_response_send: answers a request, with its own category,
    // identifier and uuid. A payload that is null is a response without one.
    void answer(const Request& request, TextView payload) {
        throwOnFailure(tryAnswer(request, payload), "answering a request");
    }
    Status tryAnswer(const Request& request, TextView payload) noexcept {
        return tryAnswer(request.name(), request.category(), request.identifier(), request.uuid(),
                         payload);
    }
    // With other fields; the uuid is to be the request's.
    void answer(kavri_core_ipc_request request, TextView category, TextView identifier,
                TextView uuid, TextView payload) {
        throwOnFailure(tryAnswer(request, category, identifier, uuid, payload),
                       "answering a request");
    }
    Status tryAnswer(kavri_core_ipc_request request, TextView category, TextView identifier,
                     TextView uuid, TextView payload) noexcept {
        return kavri_core_ipc_responder_response_send(
            handle_, request, category.c_str(), identifier.c_str(), uuid.c_str(), payload.c_str());
    }

    // kavri_core_ipc_responder_request_end: ends a request without an answer.
    void endRequest(kavri_core_ipc_request request) {
        throwOnFailure(tryEndRequest(request), "ending a request");
    }
    Status tryEndRequest(kavri_core_ipc_request request) noexcept {
        return kavri_core_ipc_responder_request_end(handle_, request);
    }

    // kavri_core_ipc_responder_event_publish: publishes an event of the category served.
    void publish(TextView identifier, TextView payload) {
        throwOnFailure(tryPublish(identifier, payload), "publishing an event");
    }
    Status tryPublish(TextView identifier, TextView payload) noexcept {
        return kavri_core_ipc_responder_event_publish(handle_, category().c_str(),
                                                      identifier.c_str(), payload.c_str());
    }

  private:
    // What stays in place when this is moved.
    struct Parts {
        std::string category;
        detail::CallbackSlot<Request> request;
        detail::Watches watches;
    };
    struct Unopened {};

    // As the C function stores them.
    struct Strings {
        kavri_core_ipc_request name{};
        char* category = nullptr;
        char* identifier = nullptr;
        char* uuid = nullptr;
        char* payload = nullptr;

        Request request() const noexcept { return {name, category, identifier, uuid, payload}; }
    };

    explicit Responder(Unopened) noexcept {}

    Status receive(Timeout timeout, Strings& strings) noexcept {
        return kavri_core_ipc_responder_request_receive(
            handle_, timeout.milliseconds(), &strings.name, &strings.category, &strings.identifier,
            &strings.uuid, &strings.payload);
    }

    Status open(TextView category, const Options& options) {
        parts_ = std::make_unique<Parts>();
        parts_->category = category.view();
        parts_->watches = detail::Watches(options);
        kavri_core_ipc_options native{};
        const Status status = detail::read(options, parts_->watches, native);
        return status == KAVRI_CORE_STATUS_NO_ERROR
                   ? kavri_core_ipc_responder_init(options.logging, &native, category.c_str(),
                                                   &handle_)
                   : status;
    }

    void swap(Responder& other) noexcept {
        std::swap(handle_, other.handle_);
        std::swap(parts_, other.parts_);
    }

    static void requested(kavri_core_ipc_request name, char** category, char** identifier,
                          char** uuid, char** payload, void* context) noexcept {
        detail::Callback<Request>::call(context,
                                        Request(name, *category, *identifier, *uuid, *payload));
    }

    kavri_core_ipc_responder* handle_ = nullptr;
    std::unique_ptr<Parts> parts_;
};

}  // namespace kavri

#endif
