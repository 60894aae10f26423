// The first exchange on a connection: hello and welcome, and the registration of a responder.
#ifndef KAVRI_CORE_CONNECTION_HANDSHAKE_H
#define KAVRI_CORE_CONNECTION_HANDSHAKE_H

#include <string>
#include <string_view>

#include "core/connection/connection.h"
#include "core/deadline.h"
#include "kavri/core.h"
#include "wire/frame.h"

namespace kavri::core {

class Handshake {
  public:
    // How it ended: NO_ERROR, or why there is no connection, in words too.
    struct Result {
        kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
        std::string reason{};
        bool hasFailed() const { return status != KAVRI_CORE_STATUS_NO_ERROR; }
    };

    // Each wait ends at the deadline, or when the waker is woken.
    Handshake(Connection& connection, const Waker& waker, Clock::time_point deadline)
        : connection_(connection), waker_(waker), deadline_(deadline) {}

    // Says hello as `role` and, where `servedCategory` is not empty, registers for it.
    Result perform(std::string_view role, std::string_view servedCategory);

  private:
    Result greet(std::string_view role);
    Result registerFor(std::string_view category);
    // The answer is the next frame, for the caller to drop.
    Result exchange(const wire::Frame& question, wire::FrameType expected, wire::Frame& answer);
    void write(const wire::Frame& frame);
    Result awaitFrame(wire::Frame& frame);
    bool isOver() const { return Clock::now() >= deadline_ || waker_.isWoken(); }

    Connection& connection_;
    const Waker& waker_;
    const Clock::time_point deadline_;
};

}  // namespace kavri::core

#endif
