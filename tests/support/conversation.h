// Conversations of initiators, responders and subscribers with the broker's router: the
// frames that are said, in a line each, and an initiator and a responder to say them.
#ifndef KAVRI_TESTS_SUPPORT_CONVERSATION_H
#define KAVRI_TESTS_SUPPORT_CONVERSATION_H

#include <sys/uio.h>

#include <boost/test/unit_test.hpp>
#include <string>
#include <string_view>

#include "support/scripted_broker.h"

namespace kavri::tests {

inline constexpr std::size_t queueLimit = 64 * 1024;
inline constexpr std::size_t threeQuarters = queueLimit / 4 * 3;

// Small enough that a test fills it with a few frames.
inline wire::Limits smallLimits() {
    wire::Limits limits;
    limits.sendQueueBytes = queueLimit;
    limits.bytesPerUser = 10 * queueLimit;
    limits.openRequestsPerInitiator = 3;
    limits.openRequestsPerResponder = 5;
    limits.subscriptionsPerInitiator = 2;
    return limits;
}

inline Frame request(std::uint64_t token, std::string_view payload = "p",
                     std::string_view category = "test") {
    return makeFrame(FrameType::request, token, {category, "echo", "u", payload});
}
inline Frame response(std::uint64_t token, std::string_view payload = "p") {
    return makeFrame(FrameType::response, token, {"test", "echo", "u", payload});
}
inline Frame completion(std::uint64_t token) {
    return makeFrame(FrameType::completion, token);
}
inline Frame publish(std::string_view payload, std::string_view category = "test") {
    return makeFrame(FrameType::publish, 0, {category, "event", {}, payload});
}
inline Frame subscribe(std::uint64_t token, std::string_view category = "test") {
    return makeFrame(FrameType::subscribe, token, {.category = category});
}
inline Frame unsubscribe(std::uint64_t token, std::string_view category = "test") {
    return makeFrame(FrameType::unsubscribe, token, {.category = category});
}
inline Frame registration(std::uint64_t token, std::string_view category = "test") {
    return makeFrame(FrameType::registration, token, {.category = category});
}

inline Frame ping(std::uint64_t token) {
    return makeFrame(FrameType::ping, token);
}
// A request whose frame has so many bytes. The payload must outlive it.
inline Frame requestOfSize(std::uint64_t token, std::size_t bytes, std::string& payload) {
    payload.assign(bytes - encode(request(token, "")).size(), 'l');
    return request(token, payload);
}

inline const std::string fields = " category=test identifier=echo uuid=u payload=";

// An event of publish(), as it is heard.
inline std::string event(const std::string& payload) {
    return "event 0 category=test identifier=event payload=" + payload;
}

// Where the first bytes are that wait for the session.
inline const void* firstBytes(const Session& session) {
    iovec piece{};
    BOOST_REQUIRE(session.sendQueue.gather(&piece, 1) == 1U);
    return piece.iov_base;
}

// An initiator and the responder of "test".
struct Conversation : ScriptedBroker {
    explicit Conversation(const wire::Limits& itsLimits = smallLimits(),
                          broker::Policy itsPolicy = {})
        : ScriptedBroker(itsLimits, std::move(itsPolicy)) {}

    Session& caller = initiator();
    Session& service = responder("test");

    // The token under which the responder has the request.
    std::uint64_t ask(std::uint64_t token) {
        BOOST_TEST(say(caller, request(token)) == nullptr);
        return hearToken(service);
    }

    // Puts something into the session's send queue up to just this many bytes.
    void fill(Session& session, std::size_t bytes) {
        session.sendQueue.appendCopy(encode(
            makeFrame(FrameType::goodbye, 0,
                      {.payload = std::string(bytes - session.sendQueue.bytes() - 32, 'f')})));
        BOOST_REQUIRE(session.sendQueue.bytes() == bytes);
    }
};

}  // namespace kavri::tests

#endif
