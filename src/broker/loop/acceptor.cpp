// Accepting connections; see acceptor.h.
#include "broker/loop/acceptor.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "broker/session/goodbye.h"

namespace kavri::broker {

Acceptor::Acceptor(Listener& listener, Surroundings surroundings)
    : listener_(listener), surroundings_(std::move(surroundings)) {
    if (listener_.watchDescriptor() >= 0) {
        surroundings_.readiness.watch(listener_.watchDescriptor(), filesMark);
    }
    listen();
}

void Acceptor::listen() {
    if (!std::exchange(isListening_, true)) {
        surroundings_.readiness.watch(listener_.descriptor(), listenerMark);
    }
}

void Acceptor::acceptSome(std::size_t readyDescriptors, Clock::time_point now) {
    accept(std::clamp<std::size_t>(readyDescriptors / readyForEachAccept, 1, acceptsPerRound), now);
}

void Acceptor::accept(std::size_t most, Clock::time_point now) {
    for (std::size_t i = 0; i < most; ++i) {
        bool outOfDescriptors = false;
        const auto accepted = listener_.accept(outOfDescriptors);
        if (!accepted) {
            if (outOfDescriptors) {
                pauseUntil(now + pause);
            }
            return;
        }
        const Refusal refusal = refusalOf(*accepted);
        if (refusal.reason.empty()) {
            ::setsockopt(accepted->descriptor, SOL_SOCKET, SO_SNDBUF, &wire::socketBufferBytes,
                         sizeof wire::socketBufferBytes);
            surroundings_.open(*accepted);
        } else {
            refuse(*accepted, refusal);
        }
    }
}

void Acceptor::pauseUntil(Clock::time_point end) {
    spdlog::error("cannot accept a connection: {}; trying again shortly",
                  std::generic_category().message(errno));
    surroundings_.readiness.unwatch(listener_.descriptor());
    isListening_ = false;
    surroundings_.deadlines.set({end, DeadlineKind::listen, {}});
}

Acceptor::Refusal Acceptor::refusalOf(const Accepted& accepted) {
    const auto& [readiness, deadlines, sessions, limits, policy, counts, open] = surroundings_;
    if (!policy.connect.contains(accepted.user)) {
        return {KAVRI_CORE_STATUS_IPC_REFUSED, "this user may not connect",
                &ConnectionCounts::notPermitted};
    }
    if (sessions.size() >= limits.connections) {
        return {KAVRI_CORE_STATUS_IPC_OVERLOADED, "the limit on connections is reached",
                &ConnectionCounts::aboveLimit};
    }
    if (sessions.connectionsOf(accepted.user) >= limits.connectionsPerUser) {
        return {KAVRI_CORE_STATUS_IPC_OVERLOADED, "the limit on connections is reached",
                &ConnectionCounts::aboveLimitOfUser};
    }
    return {};
}

// The send buffer of a new connection has room for the reason.
void Acceptor::refuse(const Accepted& accepted, const Refusal& refusal) {
    spdlog::warn("refused process {} of user {}: {}", accepted.process, accepted.user,
                 refusal.reason);
    ++(surroundings_.counts.*refusal.counter);
    std::string bytes;
    wire::appendEncoded(goodbyeFrame(refusal.status, refusal.reason), bytes);
    ::send(accepted.descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::close(accepted.descriptor);
}

// A socket that lost its name gets no new connections, but some may wait in its
// backlog: those are accepted before the socket is replaced.
void Acceptor::keepListening(Clock::time_point now) {
    while (!listener_.ownsItsFiles()) {
        accept(SOMAXCONN, now);
        surroundings_.readiness.unwatch(listener_.descriptor());
        isListening_ = false;
        listener_.restoreFiles();
        listen();
        spdlog::warn("{} or its lock was removed: made again", listener_.path());
    }
}

}  // namespace kavri::broker
