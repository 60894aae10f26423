// The responder: requests in, responses and events out.
#ifndef KAVRI_CORE_RESPONDER_H
#define KAVRI_CORE_RESPONDER_H

#include <deque>
#include <string>

#include "core/endpoint/endpoint.h"

namespace kavri::core {

class Responder : public Endpoint {
  public:
    explicit Responder(Settings settings)
        : Endpoint(settings), servedCategory_(std::move(settings.servedCategory)) {}

    kavri_core_status receive(int timeoutMs, kavri_core_ipc_request& request,
                              Message::Fields& fields);
    kavri_core_status setRequestCallback(kavri_core_ipc_responder_request_callback callback,
                                         void* context);
    // A response, or the end of the request without one.
    kavri_core_status finish(kavri_core_ipc_request request, wire::Frame frame);
    kavri_core_status publish(wire::Frame event);

  private:
    void frameReceived(const wire::Frame& frame, Text& payload) override;
    // The category served is registered within the handshake.
    bool restore(Lock&, CallDeadline&) override { return true; }
    bool isRestored() const override { return true; }
    void handleLoss() override;
    void dropMessages() override { requests_.clear(); }
    bool hasDelivery() const override { return callback_.isInstalled() && !requests_.empty(); }
    void deliver(Lock& lock) override;

    // All that is queued came over the connection that there is now.
    kavri_core_ipc_request nameOf(const Message& request) const {
        return {request.token(), connectionNumber()};
    }

    const std::string servedCategory_;
    std::deque<Message> requests_;
    CallbackSlot<kavri_core_ipc_responder_request_callback> callback_{dispatcher()};
};

}  // namespace kavri::core

#endif
