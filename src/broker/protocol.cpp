// The rules of a connection; see protocol.h.
#include "broker/protocol.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace kavri::broker {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

namespace {

std::string limitsText(const interfaces::Limits& limits) {
    return "payload_bytes=" + std::to_string(limits.payloadBytes) +
           "\nfield_bytes=" + std::to_string(interfaces::fieldLimitBytes) +
           "\nopen_requests=" + std::to_string(limits.openRequestsPerInitiator) + "\n";
}

}  // namespace

Protocol::Protocol(const interfaces::Limits& limits, Router& router, BufferPool& pool,
                   std::string identity, Close close)
    : limits_(limits),
      router_(router),
      pool_(pool),
      identity_(std::move(identity)),
      close_(std::move(close)) {}

Session* Protocol::take(Session& session, char* bytes, std::size_t count, const BlockRef& block) {
    try {
        Session* const waitFor = takeFrames(session, bytes, count, block);
        router_.endPublishing();
        return waitFor;
    } catch (const std::bad_alloc&) {
        router_.cancelPublishing();
        throw;
    }
}

Session* Protocol::takeFrames(Session& session, char* bytes, std::size_t count,
                              const BlockRef& block) {
    while (count >= interfaces::headerBytes && !session.isClosing) {
        const interfaces::Measured measured = interfaces::measure(bytes, limits_.payloadBytes);
        if (measured.error) {
            closeMalformed(session, interfaces::errorText(*measured.error));
            return nullptr;
        }
        if (session.role == Role::unknown && measured.frameBytes >= interfaces::helloFrameBytes) {
            closeMalformed(session, "its first frame is no hello");
            return nullptr;
        }
        const std::size_t part = std::min(count, measured.frameBytes);
        Session* waitFor = nullptr;
        if (measured.frameBytes >= interfaces::largeFrameBytes) {
            waitFor = part < measured.frameBytes
                          ? router_.mustWaitToBegin(session, bytes, part, measured.frameBytes)
                          : nullptr;
            if (waitFor != nullptr) {
                keepIn(block, session, bytes, count);
                return waitFor;
            }
            if (!beginLarge(session, bytes, part, measured.frameBytes)) {
                return nullptr;
            }
            waitFor = takeLarge(session);
        } else if (part < measured.frameBytes) {
            break;
        } else {
            InputFrame frame{{}, bytes, measured.frameBytes, {}};
            waitFor = handle(session, frame);
            if (waitFor != nullptr) {
                keepIn(block, session, bytes, count);
                return waitFor;
            }
            session.frameBegan = {};
        }
        bytes += part;
        count -= part;
        if (waitFor != nullptr) {
            keepIn(block, session, bytes, count);
            return waitFor;
        }
    }
    keep(session, bytes, count);
    return nullptr;
}

bool Protocol::beginLarge(Session& session, const char* bytes, std::size_t count,
                          std::size_t frameBytes) {
    BlockRef block = pool_.take(frameBytes);
    if (!chargeInput(session, block->capacity())) {
        return false;
    }
    session.large = std::move(block);
    session.largeBytes = static_cast<std::uint32_t>(frameBytes);
    session.largeFilled = static_cast<std::uint32_t>(count);
    std::memcpy(session.large->bytes(), bytes, count);
    return true;
}

Session* Protocol::takeLarge(Session& session) {
    if (session.largeFilled < session.largeBytes) {
        return nullptr;
    }
    InputFrame frame{{}, session.large->bytes(), session.largeBytes, session.large};
    Session* waitFor = handle(session, frame);
    if (waitFor == nullptr) {
        session.dropLarge();
        session.frameBegan = {};
    }
    return waitFor;
}

Session* Protocol::resume(Session& session) {
    if (session.large) {
        if (Session* waitFor = takeLarge(session)) {
            return waitFor;
        }
    }
    if (!session.backlog) {
        return nullptr;
    }
    char* const begin = session.backlogBegin();
    const BlockRef kept = session.takeBacklog();
    return take(session, begin, std::exchange(session.backlogBytes, 0), kept);
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
    session.backlog = std::move(kept);
    session.backlogOffset =
        block ? static_cast<std::uint32_t>(bytes - session.backlog->bytes()) : 0;
    session.backlogBytes = static_cast<std::uint32_t>(count);
    if (!block) {
        std::memcpy(session.backlog->bytes(), bytes, count);
    }
}

bool Protocol::chargeInput(Session& session, std::size_t bytes) {
    if (!router_.flowControl().hasShareLeft(session, bytes)) {
        close_(session, KAVRI_CORE_STATUS_IPC_OVERLOADED,
               "its user has used up bytes_per_user: there is no room for what it sends");
        return false;
    }
    session.charge.grow(bytes);
    return true;
}

Session* Protocol::handle(Session& session, InputFrame& frame) {
    ++frames_;
    const std::optional<Frame> values = interfaces::decode(frame.bytes);
    if (!values) {
        closeMalformed(session, interfaces::errorText(interfaces::FrameError::nulInField));
        return nullptr;
    }
    frame.values = *values;
    if (frame.values.type == FrameType::goodbye) {
        close_(session, KAVRI_CORE_STATUS_NO_ERROR, {});
        return nullptr;
    }
    switch (session.role) {
        case Role::unknown:
            if (frame.values.type != FrameType::hello) {
                closeMalformed(session, "its first frame is no hello");
                return nullptr;
            }
            handleHello(session, frame.values);
            return nullptr;
        case Role::initiator:
            return handleInitiator(session, frame);
        case Role::responder:
            return handleResponder(session, frame);
    }
    return nullptr;
}

void Protocol::handleHello(Session& session, const Frame& frame) {
    if (frame.token != interfaces::protocolVersion) {
        close_(session, KAVRI_CORE_STATUS_IPC_INCOMPATIBLE,
               "the broker speaks protocol version " + std::to_string(interfaces::protocolVersion) +
                   ", the client version " + std::to_string(frame.token));
        return;
    }
    const std::string_view role = frame[Field::identifier];
    if (role == "initiator") {
        session.role = Role::initiator;
    } else if (role == "responder") {
        session.role = Role::responder;
    } else {
        closeMalformed(session, "its role is neither initiator nor responder");
        return;
    }
    Frame welcome;
    welcome.type = FrameType::welcome;
    welcome.token = interfaces::protocolVersion;
    welcome[Field::uuid] = identity_;
    const std::string granted = limitsText(limits_);
    welcome[Field::payload] = granted;
    router_.send(session, welcome);
}

Session* Protocol::handleInitiator(Session& session, InputFrame& frame) {
    if (router_.flowControl().isCongested(session)) {
        return &session;
    }
    switch (frame.values.type) {
        case FrameType::request:
            return router_.request(session, frame);
        case FrameType::subscribe:
            router_.subscribe(session, frame.values);
            return nullptr;
        case FrameType::unsubscribe:
            router_.unsubscribe(session, frame.values);
            return nullptr;
        case FrameType::ping:
            frame.values.type = FrameType::pong;
            router_.send(session, frame.values);
            return nullptr;
        default:
            closeMalformed(session, "an initiator does not send this type");
            return nullptr;
    }
}

// A responder's answers are taken even while it takes no requests: it may be
// busy giving them. Only what makes the broker answer has to wait.
Session* Protocol::handleResponder(Session& session, InputFrame& frame) {
    if (frame.values.type != FrameType::publish) {
        router_.endPublishing();
    }
    switch (frame.values.type) {
        case FrameType::response:
            return router_.response(session, frame);
        case FrameType::publish:
            return router_.publish(session, frame);
        case FrameType::completion:
            router_.completion(session, frame.values.token);
            return nullptr;
        case FrameType::registration:
        case FrameType::ping:
            break;
        default:
            closeMalformed(session, "a responder does not send this type");
            return nullptr;
    }
    if (router_.flowControl().isCongested(session)) {
        return &session;
    }
    if (frame.values.type == FrameType::registration) {
        router_.registerResponder(session, frame.values);
    } else {
        frame.values.type = FrameType::pong;
        router_.send(session, frame.values);
    }
    return nullptr;
}

void Protocol::closeMalformed(Session& session, std::string_view what) {
    close_(session, KAVRI_CORE_STATUS_IPC_REFUSED, "malformed: " + std::string(what));
}

}  // namespace kavri::broker
