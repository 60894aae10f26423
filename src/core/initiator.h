// The initiator: requests out, responses and events in.
#ifndef KAVRI_CORE_INITIATOR_H
#define KAVRI_CORE_INITIATOR_H

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "core/endpoint.h"
#include "core/pending_requests.h"

namespace kavri::core {

class Initiator : public Endpoint {
  public:
    using Endpoint::Endpoint;

    // Gives the requests their tokens and sends them; how many were accepted is in `sent`.
    kavri_core_status send(std::span<interfaces::Frame> requests, std::size_t& sent);
    // Stores the four strings of the next response.
    kavri_core_status receive(int timeoutMs, Message::Fields& fields);
    kavri_core_status setResponseCallback(kavri_core_ipc_initiator_response_callback callback,
                                          void* context);

    kavri_core_status subscribe(const std::string& category);
    kavri_core_status unsubscribe(std::string_view category);
    kavri_core_status setEventCallback(kavri_core_ipc_initiator_event_callback callback,
                                       void* context);

  private:
    void handleFrame(const interfaces::Frame& frame, Text& payload) override;
    bool connectionMade(Lock& lock, CallDeadline& deadline) override;
    bool isRestored() const override;
    void connectionLost() override;
    bool hasCallback() const override;
    void removeCallbacks() override;
    void dropMessages() override;
    bool hasDelivery() const override;
    void deliver(Lock& lock) override;

    void handleResponse(const interfaces::Frame& frame, Text& payload);
    void handleEvent(const interfaces::Frame& frame, Text& payload);
    void handleAcknowledgement(const interfaces::Frame& frame);
    void dropEvents(std::optional<std::string_view> ofCategory);
    interfaces::Frame question(interfaces::FrameType type, const std::string& category,
                               bool awaited);
    kavri_core_status ask(Lock& lock, interfaces::FrameType type, const std::string& category);
    kavri_core_status awaitAnswer(Lock& lock, const interfaces::Frame& frame);

    PendingRequests pending_;
    std::deque<Message> responses_;
    CallbackSlot<kavri_core_ipc_initiator_response_callback> responseCallback_;

    std::set<std::string, std::less<>> subscriptions_;
    std::deque<Message> events_;
    CallbackSlot<kavri_core_ipc_initiator_event_callback> eventCallback_;

    // What the broker was asked and has not acknowledged, by token.
    struct Question {
        interfaces::FrameType type;
        std::string category;
        bool awaited;  // a call waits for the answer, and removes the question
        std::optional<kavri_core_status> answer;
    };
    std::map<std::uint64_t, Question> questions_;
    std::uint64_t lastQuestion_ = 0;
};

}  // namespace kavri::core

#endif
