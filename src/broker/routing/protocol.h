// What a session may say and when: first its hello, then what its role allows.
//
// Splits a session's input into frames, checks each, and passes it to the router. A
// session that breaks a rule is closed, with the reason in the log and in its goodbye;
// other sessions are not affected.
#ifndef KAVRI_BROKER_ROUTING_PROTOCOL_H
#define KAVRI_BROKER_ROUTING_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "broker/routing/router.h"
#include "broker/session/close_cause.h"
#include "broker/session/session.h"
#include "wire/limits.h"

namespace kavri::broker {

class Protocol {
  public:
    // Closes a session; the reason goes into its goodbye.
    using Close = std::function<void(Session&, CloseCause, std::string_view reason)>;

    // identity: the broker's own uuid, sent in every welcome.
    Protocol(const wire::Limits& limits, Router& router, BufferPool& pool, std::string identity,
             Close close);

    // Handles the frames in `bytes`, and keeps with the session what cannot be
    // handled yet. Bytes that are in a block already are not copied to be kept.
    std::optional<Blocked> take(Session& session, char* bytes, std::size_t count,
                                const BlockRef& block = {});

    // How many frames there were so far.
    std::uint64_t frames() const { return frames_; }

    // Handles the session's large frame when it has all its bytes.
    std::optional<Blocked> takeLarge(Session& session);

    // Keeps bytes with the session until they can be handled.
    void keep(Session& session, const char* bytes, std::size_t count) {
        keepIn({}, session, bytes, count);
    }

    // Handles the input that was kept while the session was blocked.
    std::optional<Blocked> resume(Session& session);

  private:
    std::optional<Blocked> handle(Session& session, InputFrame& frame);
    std::optional<Blocked> handleDecoded(Session& session, InputFrame& frame);
    std::optional<Blocked> handleInitiator(Session& session, InputFrame& frame);
    std::optional<Blocked> handleResponder(Session& session, InputFrame& frame);
    void beginMonitor(Session& session, const wire::Frame& frame);
    void answerPing(Session& session, const wire::Frame& frame);
    std::optional<Blocked> handleManager(Session& session, const wire::Frame& frame);
    std::optional<Blocked> handleRemote(Session& session, InputFrame& frame);
    void handleHello(Session& session, const wire::Frame& frame);
    bool takeRole(Session& session, std::string_view name);
    // What became of the beginning of the input: bytes that need not be kept.
    struct Step {
        std::size_t taken;
        std::optional<Blocked> blocked;
    };
    Step takeSmall(Session& session, char* bytes, std::size_t count, std::size_t frameBytes);
    Step beginLarge(Session& session, const char* bytes, std::size_t count, std::size_t frameBytes);
    void keepIn(const BlockRef& block, Session& session, const char* bytes, std::size_t count);
    bool chargeInput(Session& session, std::size_t bytes);

    void closeMalformed(Session& session, std::string_view what);

    const wire::Limits& limits_;
    Router& router_;
    BufferPool& pool_;
    const std::string identity_;
    Close close_;
    std::uint64_t frames_ = 0;
};

}  // namespace kavri::broker

#endif
