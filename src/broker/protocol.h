// What a session may say and when: first its hello, then what its role allows.
//
// Splits what comes in into frames and hands each to where it belongs. A peer
// that breaks a rule is closed, with the reason in the log and in its goodbye;
// nobody else notices.
#ifndef KAVRI_BROKER_PROTOCOL_H
#define KAVRI_BROKER_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "broker/router.h"
#include "broker/session.h"
#include "interfaces/limits.h"

namespace kavri::broker {

class Protocol {
  public:
    // Closes a session; the status goes into its goodbye.
    using Close = std::function<void(Session&, kavri_core_status, std::string_view reason)>;

    // identity: the broker's own uuid, told to every peer.
    Protocol(const interfaces::Limits& limits, Router& router, BufferPool& pool,
             std::string identity, Close close);

    // Handles the frames in `bytes`, and keeps with the session what cannot be
    // handled yet. Returns the session that this one must wait for, or null.
    // Bytes that are in a block already are not copied to be kept.
    Session* take(Session& session, char* bytes, std::size_t count, const BlockRef& block = {});

    // How many frames there were so far.
    std::uint64_t frames() const { return frames_; }

    // The session's large frame has got all its bytes. Returns as take does.
    Session* takeLarge(Session& session);

    // Keeps bytes with the session until they can be handled.
    void keep(Session& session, const char* bytes, std::size_t count) {
        keepIn({}, session, bytes, count);
    }

    // Handles the input that was kept while the session was blocked.
    Session* resume(Session& session);

  private:
    Session* takeFrames(Session& session, char* bytes, std::size_t count, const BlockRef& block);
    Session* handle(Session& session, InputFrame& frame);
    Session* handleInitiator(Session& session, InputFrame& frame);
    Session* handleResponder(Session& session, InputFrame& frame);
    void handleHello(Session& session, const interfaces::Frame& frame);
    // False where the frame cannot be taken in now.
    bool beginLarge(Session& session, const char* bytes, std::size_t count, std::size_t frameBytes);
    void keepIn(const BlockRef& block, Session& session, const char* bytes, std::size_t count);
    bool chargeInput(Session& session, std::size_t bytes);

    void closeMalformed(Session& session, std::string_view what);

    const interfaces::Limits& limits_;
    Router& router_;
    BufferPool& pool_;
    const std::string identity_;
    Close close_;
    std::uint64_t frames_ = 0;
};

}  // namespace kavri::broker

#endif
