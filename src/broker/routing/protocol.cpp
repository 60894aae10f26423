// The rules of a connection; see protocol.h.
#include "broker/routing/protocol.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "wire/lines.h"

namespace kavri::broker {

using wire::Field;
using wire::Frame;
using wire::FrameType;

namespace {

std::string limitsText(const wire::Limits& limits) {
    Lines lines;
    lines.add("payload_bytes", limits.payloadBytes);
    lines.add("field_bytes", wire::fieldLimitBytes);
    lines.add("open_requests", limits.openRequestsPerInitiator);
    return lines.text();
}

// Of a notice from another broker. Where it cannot be, nothing is known of the request.
std::uint16_t noticeStatus(std::uint16_t status) {
    switch (status) {
        case KAVRI_CORE_STATUS_IPC_REFUSED:
        case KAVRI_CORE_STATUS_IPC_NO_RESPONDER:
        case KAVRI_CORE_STATUS_IPC_TOO_LARGE:
        case KAVRI_CORE_STATUS_IPC_OVERLOADED:
            return status;
        default:
            return KAVRI_CORE_STATUS_IPC_RESPONDER_LOST;
    }
}

}  // namespace

Protocol::Protocol(const wire::Limits& limits, Router& router, BufferPool& pool,
                   std::string identity, Close close)
    : limits_(limits),
      router_(router),
      pool_(pool),
      identity_(std::move(identity)),
      close_(std::move(close)) {}

std::optional<Blocked> Protocol::take(Session& session, char* bytes, std::size_t count,
                                      const BlockRef& block) {
    while (!session.isClosing) {
        using State = wire::FirstFrame::State;
        const wire::FirstFrame first = wire::firstFrame(bytes, count, limits_.payloadBytes);
        if (first.state == State::malformed) {
            closeMalformed(session, wire::errorText(first.error));
            return std::nullopt;
        }
        if (session.role == Role::unknown && first.frameBytes >= wire::helloFrameBytes) {
            closeMalformed(session, "its first frame is not a hello");
            return std::nullopt;
        }
        const bool isLarge = first.frameBytes >= wire::largeFrameBytes;
        if (first.state != State::complete && !isLarge) {
            break;
        }
        const Step step = isLarge ? beginLarge(session, bytes, count, first.frameBytes)
                                  : takeSmall(session, bytes, count, first.frameBytes);
        bytes += step.taken;
        count -= step.taken;
        if (step.blocked) {
            keepIn(block, session, bytes, count);
            return step.blocked;
        }
    }
    keep(session, bytes, count);
    return std::nullopt;
}

Protocol::Step Protocol::takeSmall(Session& session, char* bytes, std::size_t count,
                                   std::size_t frameBytes) {
    InputFrame frame{{}, bytes, frameBytes, {}, count - frameBytes};
    if (const auto blocked = handle(session, frame)) {
        return {0, blocked};
    }
    session.input.frameBegan = {};
    return {frame.length, std::nullopt};
}

// Closes the session where its account has no room for the frame.
Protocol::Step Protocol::beginLarge(Session& session, const char* bytes, std::size_t count,
                                    std::size_t frameBytes) {
    const std::size_t part = std::min(count, frameBytes);
    if (part < frameBytes) {
        if (const auto blocked = router_.beginLarge(session, bytes, part, frameBytes)) {
            return {0, blocked};
        }
    }
    BlockRef block = pool_.take(frameBytes);
    if (!chargeInput(session, block->capacity())) {
        return {part, std::nullopt};
    }
    session.input.large = std::move(block);
    session.input.largeFrame.begin(frameBytes, part);
    std::memcpy(session.input.large->bytes(), bytes, part);
    return {part, takeLarge(session)};
}

std::optional<Blocked> Protocol::takeLarge(Session& session) {
    if (!session.input.largeFrame.isComplete()) {
        return std::nullopt;
    }
    InputFrame frame{
        {}, session.input.large->bytes(), session.input.largeFrame.bytes(), session.input.large};
    const auto blocked = handle(session, frame);
    if (!blocked) {
        session.input.dropLarge();
        session.waiting.isLetIn = false;
        session.input.frameBegan = {};
    }
    return blocked;
}

std::optional<Blocked> Protocol::resume(Session& session) {
    if (session.input.large) {
        if (const auto blocked = takeLarge(session)) {
            return blocked;
        }
    }
    if (!session.input.backlog) {
        return std::nullopt;
    }
    char* const begin = session.input.backlogBegin();
    const BlockRef kept = session.input.takeBacklog();
    return take(session, begin, std::exchange(session.input.backlogBytes, 0), kept);
}

void Protocol::keepIn(const BlockRef& block, Session& session, const char* bytes,
                      std::size_t count) {
    if (count == 0 || session.isClosing) {
        return;
    }
    BlockRef kept = block ? block : pool_.take(count);
    if (!chargeInput(session, kept->capacity())) {
        return;
    }
    session.input.backlog = std::move(kept);
    session.input.backlogOffset =
        block ? static_cast<std::uint32_t>(bytes - session.input.backlog->bytes()) : 0;
    session.input.backlogBytes = static_cast<std::uint32_t>(count);
    if (!block) {
        std::memcpy(session.input.backlog->bytes(), bytes, count);
    }
}

bool Protocol::chargeInput(Session& session, std::size_t bytes) {
    if (!router_.flowControl().hasShareLeft(session, bytes)) {
        close_(session, CloseCause::shareUsedUp,
               "its user has used up bytes_per_user: there is no room for what it sends");
        return false;
    }
    session.input.charge.grow(bytes);
    return true;
}

std::optional<Blocked> Protocol::handle(Session& session, InputFrame& frame) {
    const std::optional<Frame> values = wire::decode(frame.bytes);
    if (!values) {
        closeMalformed(session, wire::errorText(wire::FrameError::nulInField));
        return std::nullopt;
    }
    frame.values = *values;
    const auto blocked = handleDecoded(session, frame);
    frames_ += frame.frames;
    return blocked;
}

std::optional<Blocked> Protocol::handleDecoded(Session& session, InputFrame& frame) {
    if (frame.values.type == FrameType::goodbye) {
        close_(session, CloseCause::leftByPeer, {});
        return std::nullopt;
    }
    if (session.transport != nullptr) {
        return handleRemote(session, frame);
    }
    switch (session.role) {
        case Role::unknown:
            if (frame.values.type != FrameType::hello) {
                closeMalformed(session, "its first frame is not a hello");
                return std::nullopt;
            }
            handleHello(session, frame.values);
            return std::nullopt;
        case Role::initiator:
            return handleInitiator(session, frame);
        case Role::responder:
            return handleResponder(session, frame);
        case Role::manager:
            return handleManager(session, frame.values);
    }
    return std::nullopt;
}

void Protocol::handleHello(Session& session, const Frame& frame) {
    if (frame.token != wire::protocolVersion) {
        close_(session, CloseCause::otherVersion,
               "the broker speaks protocol version " + std::to_string(wire::protocolVersion) +
                   ", the client version " + std::to_string(frame.token));
        return;
    }
    if (!takeRole(session, frame[Field::identifier])) {
        return;
    }
    router_.tap().frame(&session, nullptr, frame);
    Frame welcome;
    welcome.type = FrameType::welcome;
    welcome.token = wire::protocolVersion;
    welcome[Field::uuid] = identity_;
    const std::string granted = limitsText(limits_);
    welcome[Field::payload] = granted;
    router_.send(session, welcome);
}

// Closes the session where there is no such role, or its user may not have it.
bool Protocol::takeRole(Session& session, std::string_view name) {
    if (name == "initiator") {
        session.role = Role::initiator;
    } else if (name == "responder") {
        session.role = Role::responder;
    } else if (name != "manager") {
        closeMalformed(session, "its role is none of initiator, responder and manager");
    } else if (!router_.policy().manage.contains(session.user)) {
        close_(session, CloseCause::notPermitted, "this user may not manage the broker");
    } else {
        session.role = Role::manager;
    }
    return session.role != Role::unknown;
}

std::optional<Blocked> Protocol::handleInitiator(Session& session, InputFrame& frame) {
    if (router_.flowControl().isCongested(session)) {
        return Blocked{session};
    }
    switch (frame.values.type) {
        case FrameType::request:
            return router_.request(session, frame);
        case FrameType::subscribe:
            router_.subscribe(session, frame.values);
            return std::nullopt;
        case FrameType::unsubscribe:
            router_.unsubscribe(session, frame.values);
            return std::nullopt;
        case FrameType::ping:
            answerPing(session, frame.values);
            return std::nullopt;
        default:
            closeMalformed(session, "an initiator does not send this type");
            return std::nullopt;
    }
}

// A responder's answers are taken even while it takes no requests: it may be
// busy giving them. Only what makes the broker answer has to wait.
std::optional<Blocked> Protocol::handleResponder(Session& session, InputFrame& frame) {
    switch (frame.values.type) {
        case FrameType::response:
            return router_.response(session, frame);
        case FrameType::publish:
            return router_.publish(session, frame);
        case FrameType::completion:
            frame.values.status = KAVRI_CORE_STATUS_NO_ERROR;
            router_.completion(session, frame.values);
            return std::nullopt;
        case FrameType::registration:
        case FrameType::ping:
            break;
        default:
            closeMalformed(session, "a responder does not send this type");
            return std::nullopt;
    }
    if (router_.flowControl().isCongested(session)) {
        return Blocked{session};
    }
    if (frame.values.type == FrameType::registration) {
        router_.registerResponder(session, frame.values);
    } else {
        answerPing(session, frame.values);
    }
    return std::nullopt;
}

// What crosses the link: requests to the responder here that was asked for; what answers them from
// one elsewhere; and its events.
std::optional<Blocked> Protocol::handleRemote(Session& session, InputFrame& frame) {
    const FrameType type = frame.values.type;
    if (session.role == Role::initiator) {
        if (type == FrameType::request &&
            session.transport->mayRequest(frame.values[Field::category])) {
            return handleInitiator(session, frame);
        }
    } else if (type == FrameType::notice) {
        frame.values.status = noticeStatus(frame.values.status);
        router_.completion(session, frame.values);
        return std::nullopt;
    } else if (type == FrameType::response || type == FrameType::completion ||
               type == FrameType::publish) {
        return handleResponder(session, frame);
    }
    closeMalformed(session, "this does not cross a link");
    return std::nullopt;
}

std::optional<Blocked> Protocol::handleManager(Session& session, const Frame& frame) {
    if (router_.flowControl().isCongested(session)) {
        return Blocked{session};
    }
    switch (frame.type) {
        case FrameType::query:
            router_.tap().frame(&session, nullptr, frame);
            router_.query(session, frame.token);
            break;
        case FrameType::monitor:
            beginMonitor(session, frame);
            break;
        case FrameType::ping:
            answerPing(session, frame);
            break;
        default:
            closeMalformed(session, "a manager does not send this type");
    }
    return std::nullopt;
}

void Protocol::beginMonitor(Session& session, const Frame& frame) {
    router_.tap().frame(&session, nullptr, frame);
    std::optional<Monitor> monitor = Monitor::asked(frame);
    if (!monitor) {
        closeMalformed(session, "an option of a monitor is none");
    } else if (session.monitor != nullptr) {
        closeMalformed(session, "it is a monitor already");
    } else {
        const bool hasBegun = router_.tap().begin(session, std::move(*monitor));
        router_.acknowledge(
            session, frame.token,
            hasBegun ? KAVRI_CORE_STATUS_NO_ERROR : KAVRI_CORE_STATUS_IPC_OVERLOADED);
    }
}

void Protocol::answerPing(Session& session, const Frame& frame) {
    router_.tap().frame(&session, nullptr, frame);
    Frame pong = frame;
    pong.type = FrameType::pong;
    router_.send(session, pong);
}

void Protocol::closeMalformed(Session& session, std::string_view what) {
    close_(session, CloseCause::malformed, "malformed: " + std::string(what));
}

}  // namespace kavri::broker
