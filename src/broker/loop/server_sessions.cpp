// How sessions begin and end in the server: accepted or opened by the link, closed with a
// reason, and removed at the end of a round; see server.h.
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "base/assert.h"
#include "broker/loop/server.h"
#include "broker/session/goodbye.h"
#include "broker/session/transport.h"

namespace kavri::broker {

void Server::open(const Accepted& accepted) {
    Session* session = nullptr;
    try {
        session = &sessions_.add(accepted, pool_);
        deadlines_.set({now_ + limits_.handshakeTime, DeadlineKind::handshake, session->id});
    } catch (const std::bad_alloc&) {
        spdlog::error("no memory for another connection");
        ++counts_.outOfResources;
        session == nullptr ? static_cast<void>(::close(accepted.descriptor))
                           : sessions_.remove(*session);
        return;
    }
    ++counts_.accepted;
    counts_.most = std::max(counts_.most, sessions_.size());
    traffic_.watch(*session);
    traffic_.receive(*session, readShare(*session));  // its hello is mostly there already
}

Session* Server::openRemote(Role role, Transport& transport, Session* payer) {
    try {
        return &sessions_.addRemote(role, transport, payer, pool_);
    } catch (const std::bad_alloc&) {
        spdlog::error("no memory for what comes over the link");
        return nullptr;
    }
}

void Server::close(Session& session, CloseCause cause, std::string_view reason) {
    if (session.isClosing) {
        return;
    }
    session.isClosing = true;
    if (session.transport == nullptr) {
        ++counts_.closedBy(cause);
    }
    router_.tap().closed(session, statusOf(cause), reason);
    closing_.push_back(&session);
    if (reason.empty()) {
        return;  // the peer has closed the connection
    }
    if (!stopping_) {
        logClosing(session, reason);
    }
    try {
        session.sendQueue.append(goodbyeFrame(statusOf(cause), reason));
    } catch (const std::bad_alloc&) {
        // Closed without a reason: there is no memory for one.
    }
}

void Server::logClosing(const Session& session, std::string_view reason) {
    if (session.transport == nullptr) {
        spdlog::warn("closing the connection of process {} of user {}: {}", session.process,
                     session.user, reason);
    } else if (log_.admits(reason)) {
        spdlog::warn("closing a channel of the link: {}", reason);
    }
}

void Server::leave(Session& session) {
    Traffic::sendLast(session);  // says why it is closed
    router_.forget(session);
    reports_.forget(session);
    if (Transport* const transport = std::exchange(session.transport, nullptr)) {
        transport->end();
    }
    leaving_.push_back(&session);
}

void Server::remove(Session& session) {
    KAVRI_ASSERT(!session.isBlocked() &&
                     (session.congestion == nullptr || !session.congestion->somebodyWaits()),
                 "no session is blocked on one that is removed");
    traffic_.forget(session);
    router_.toWrite().remove(session);
    for (const DeadlineKind kind :
         {DeadlineKind::handshake, DeadlineKind::drain, DeadlineKind::frame}) {
        deadlines_.cancel(kind, session.id);
    }
    sessions_.remove(session);
    reserve_.restore();
}

}  // namespace kavri::broker
