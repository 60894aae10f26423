// The initiator: requests out, responses and events in.
#ifndef KAVRI_CORE_INITIATOR_H
#define KAVRI_CORE_INITIATOR_H

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "core/endpoint/endpoint.h"
#include "core/pending_requests.h"

namespace kavri::core {

class Initiator : public Endpoint {
  public:
    explicit Initiator(Settings settings);

    // Assigns the requests their tokens and sends them; `sent` is how many were accepted.
    kavri_core_status send(std::span<wire::Frame> requests, std::size_t& sent);
    // Takes the next response: its four strings are the caller's from then on.
    kavri_core_status receive(int timeoutMs, Message::Fields& fields);
    kavri_core_status setResponseCallback(kavri_core_ipc_initiator_response_callback callback,
                                          void* context);

    kavri_core_status subscribe(const std::string& category);
    kavri_core_status unsubscribe(std::string_view category);
    kavri_core_status setEventCallback(kavri_core_ipc_initiator_event_callback callback,
                                       void* context);

  private:
    void frameReceived(const wire::Frame& frame, Text& payload) override;
    bool restore(Lock& lock, CallDeadline& deadline) override;
    bool isRestored() const override;
    void handleLoss() override;
    void dropMessages() override;
    bool hasDelivery() const override;
    void deliver(Lock& lock) override;

    // With the callback, receives return no outcomes of requests.
    bool hasFailure() { return !outcomeCallback_.isInstalled() && pending_.hasFailure(); }
    bool hasOutcome() const { return outcomeCallback_.isInstalled() && pending_.hasOutcome(); }

    void handleResponse(const wire::Frame& frame, Text& payload);
    void handleEvent(const wire::Frame& frame, Text& payload);
    void handleAcknowledgement(const wire::Frame& frame);
    void dropEvents(std::optional<std::string_view> ofCategory);
    wire::Frame addChange(wire::FrameType type, const std::string& category, bool awaited);
    kavri_core_status changeSubscription(Lock& lock, wire::FrameType type,
                                         const std::string& category);
    kavri_core_status sendAndAwaitAnswer(Lock& lock, const wire::Frame& frame);

    PendingRequests pending_;
    std::deque<Message> responses_;
    CallbackSlot<kavri_core_ipc_initiator_response_callback> responseCallback_{dispatcher()};
    CallbackSlot<kavri_core_ipc_outcome_callback> outcomeCallback_{dispatcher()};

    std::set<std::string, std::less<>> subscriptions_;
    std::deque<Message> events_;
    CallbackSlot<kavri_core_ipc_initiator_event_callback> eventCallback_{dispatcher()};

    // A subscribe or unsubscribe that the broker has not acknowledged, by its token.
    struct SubscriptionChange {
        wire::FrameType type;
        std::string category;
        bool awaited;  // a call waits for the answer, and removes this
        std::optional<kavri_core_status> answer;
    };
    std::map<std::uint64_t, SubscriptionChange> changes_;
    std::uint64_t lastChange_ = 0;
};

}  // namespace kavri::core

#endif
