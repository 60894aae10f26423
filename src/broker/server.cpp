// The broker's loop; see server.h.
#include "broker/server.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "broker/goodbye.h"
#include "broker/rights.h"

namespace kavri::broker {

namespace {

constexpr std::size_t piecesPerWrite = 64;
// Memory that is kept for use again goes back to the system after such a pause.
constexpr std::chrono::milliseconds pauseBeforeTrim{1000};

ssize_t sendSome(const Session& session) {
    std::array<iovec, piecesPerWrite> pieces;
    const std::size_t count = session.outbox.gather(pieces.data(), pieces.size());
    if (count <= 1) {
        return count == 0 ? 0
                          : ::send(session.descriptor, pieces[0].iov_base, pieces[0].iov_len,
                                   MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = count;
    return ::sendmsg(session.descriptor, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace

Server::Server(ServerOptions options, Listener& listener, const Log& log)
    : limits_(options.limits),
      policy_(std::move(options.policy)),
      router_(limits_, policy_, pool_,
              {[this](SessionId id) { return find(id); },
               [this](Session& session, std::string_view reason) {
                   close(session, KAVRI_CORE_STATUS_IPC_OVERLOADED, reason);
               },
               [&log](const Session& session, std::string_view what) {
                   if (log.admits(what)) {
                       spdlog::warn("process {} of user {} {}", session.process, session.user,
                                    what);
                   }
               }}),
      protocol_(limits_, router_, pool_, std::move(options.identity),
                [this](Session& session, kavri_core_status status, std::string_view reason) {
                    close(session, status, reason);
                }),
      acceptor_(listener, {readiness_, deadlines_, sessions_, limits_, policy_,
                           [this](const Accepted& accepted) { open(accepted); }}),
      clock_(Clock::now()),
      now_(clock_.now()),
      readBuffer_(BufferPool::standardBytes + readBytesOfEvents) {}

void Server::run(int signalDescriptor, std::function<void()> onSignal) {
    onSignal_ = std::move(onSignal);
    readiness_.watch(signalDescriptor, signalMark);
    filesChanged_ = true;  // perhaps before they were watched
    while (!stopping_) {
        waitForEvents();
        for (const epoll_event& event : readiness_.events()) {
            handleEvent(event);
        }
        if (stopping_) {
            break;
        }
        handleDeadlines();
        if (std::exchange(filesChanged_, false)) {
            keepListening();
        }
        if (std::exchange(connectionsWait_, false)) {
            acceptor_.acceptSome(readiness_.events().size(), now_);
        }
        finishRound();
    }
    sayGoodbye();
    if (!failure_.empty()) {
        throw CannotListen(failure_);
    }
}

void Server::waitForEvents() {
    Clock::duration planned{};
    if (hasWorkLeft()) {
        readiness_.wait(0);
    } else if (!spin_.until([this] { return readiness_.wait(0); })) {
        const Clock::time_point begin = Clock::now();
        const int timeoutMs = sleepTimeMs(clock_.at(begin));
        planned = timeoutMs < 0 ? Clock::duration::max() : std::chrono::milliseconds(timeoutMs);
        readiness_.wait(timeoutMs) ? spin_.slept(Clock::now() - begin) : pool_.trim();
    }
    clock_.advance(Clock::now(), planned);
    now_ = clock_.now();
}

// Until the next deadline; and not long while the pool keeps what a longer pause
// lets go.
int Server::sleepTimeMs(Clock::time_point now) const {
    const auto next = deadlines_.next();
    if (!next && pool_.isEmpty()) {
        return -1;
    }
    auto left = pool_.isEmpty() ? std::chrono::milliseconds::max() : pauseBeforeTrim;
    if (next) {
        left = std::min(left, std::chrono::ceil<std::chrono::milliseconds>(*next - now));
    }
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

void Server::handleEvent(const epoll_event& event) {
    switch (event.data.u64) {
        case signalMark:
            onSignal_();
            return;
        case listenerMark:
            connectionsWait_ = true;
            return;
        case filesMark:
            filesChanged_ = true;
            return;
        default:
            break;
    }
    Session* session = find(idOf(event.data.u64));
    if (session == nullptr || session->isClosing) {
        return;
    }
    if ((event.events & EPOLLOUT) != 0) {
        writeTo(*session);
    }
    if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !session->isHeldBack &&
        !session->isClosing) {
        readLimitBytes_ = readShare(*session);
        receive(*session);
    }
}

void Server::receive(Session& session) {
    session.large ? readLarge(session) : readFrom(session);
}

// Each frame of a responder may be an event to all who subscribed, so what is read
// from it costs as many times as much.
std::size_t Server::readShare(const Session& session) const {
    const std::size_t receivers =
        session.served == nullptr ? 0 : session.served->subscribers.size();
    const std::size_t share = readBytesPerRound / std::max(readiness_.events().size(), receivers);
    return std::clamp(share, leastReadBytes, receivers > 1 ? readBytesOfEvents : readBytes);
}

void Server::handleDeadlines() {
    while (const auto due = deadlines_.takeDue(now_)) {
        if (due->kind == DeadlineKind::listen) {
            acceptor_.listen();
            continue;
        }
        Session* session = find(due->session);
        if (session != nullptr && !session->isClosing) {
            handleDeadline(due->kind, *session);
        }
    }
}

void Server::handleDeadline(DeadlineKind kind, Session& session) {
    switch (kind) {
        case DeadlineKind::handshake:
            // Its hello may have come in time, and wait behind others' input.
            if (session.role == Role::unknown) {
                receive(session);
            }
            if (session.role == Role::unknown && !session.isClosing) {
                close(session, KAVRI_CORE_STATUS_IPC_REFUSED, "said no hello in time");
            }
            break;
        case DeadlineKind::progress:
            checkProgress(session);
            break;
        default:
            checkPatience(session);
            break;
    }
}

// Writing and closing let other sessions go on, which fills send queues: those are
// written to in the next round.
void Server::finishRound() {
    std::vector<Session*>& toWrite = router_.toWrite();
    const std::size_t listed = toWrite.size();
    for (std::size_t i = 0; i < listed; ++i) {
        Session& session = *toWrite[i];
        session.listedForWriting = false;
        if (!session.isClosing) {
            writeTo(session);
        }
    }
    toWrite.erase(toWrite.begin(), toWrite.begin() + static_cast<std::ptrdiff_t>(listed));
    const auto removals = static_cast<std::ptrdiff_t>(std::min(closing_.size(), removalsPerRound));
    for (std::ptrdiff_t i = 0; i < removals; ++i) {
        remove(*closing_[static_cast<std::size_t>(i)]);
    }
    closing_.erase(closing_.begin(), closing_.begin() + removals);
}

void Server::sayGoodbye() {
    stopping_ = true;
    const std::string reason =
        failure_.empty() ? "the broker is stopping" : "the broker is stopping: " + failure_;
    sessions_.forEach([&](Session& session) {
        close(session, KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE, reason);
    });
    while (!closing_.empty()) {
        finishRound();
    }
}

void Server::reconfigure(interfaces::Limits limits, Policy policy) {
    limits.payloadBytes = limits_.payloadBytes;
    limits_ = limits;
    policy_ = std::move(policy);
    router_.policyChanged();
    sessions_.forEach([this](Session& session) {
        if (const std::string_view reason = lostRight(session, policy_); !reason.empty()) {
            close(session, KAVRI_CORE_STATUS_IPC_REFUSED, reason);
        }
    });
}

void Server::open(const Accepted& accepted) {
    Session& session = sessions_.add(accepted, pool_);
    deadlines_.set({now_ + limits_.handshakeTime, DeadlineKind::handshake, session.id});
    poll(session);
    readLimitBytes_ = readBytes;
    readFrom(session);  // its hello is mostly there already
}

void Server::keepListening() {
    try {
        acceptor_.keepListening(now_);
    } catch (const CannotListen& error) {
        failure_ = "the socket was removed or replaced: " + std::string(error.what());
        stopping_ = true;
    }
}

void Server::readFrom(Session& session) {
    char* const begin = readBuffer_.data() + session.backlogBytes;
    const ssize_t count = ::recv(session.descriptor, begin, readLimitBytes_, 0);
    if (count <= 0) {
        ended(session, count == 0 ? 0 : errno);
        return;
    }
    if (session.backlog) {
        std::memcpy(readBuffer_.data(), session.backlog->bytes(), session.backlogBytes);
        session.backlog = {};
    }
    const std::size_t total =
        std::exchange(session.backlogBytes, 0) + static_cast<std::size_t>(count);
    waitOrGoOn(session, protocol_.take(session, readBuffer_.data(), total));
}

// Straight into the large frame's own block; of what follows it little, since that
// may be another large one.
void Server::readLarge(Session& session) {
    const std::size_t missing = session.largeBytes - session.largeFilled;
    std::array<iovec, 2> pieces{{{session.large->bytes() + session.largeFilled, missing},
                                 {readBuffer_.data(), readBehindLargeBytes}}};
    const ssize_t count = ::readv(session.descriptor, pieces.data(), pieces.size());
    if (count <= 0) {
        ended(session, count == 0 ? 0 : errno);
        return;
    }
    const std::size_t filled = std::min(missing, static_cast<std::size_t>(count));
    const std::size_t behind = static_cast<std::size_t>(count) - filled;
    session.largeFilled += filled;
    Session* waitFor = protocol_.takeLarge(session);
    if (waitFor != nullptr) {
        protocol_.keep(session, readBuffer_.data(), behind);
    } else if (behind > 0 && !session.isClosing) {
        waitFor = protocol_.take(session, readBuffer_.data(), behind);
    }
    waitOrGoOn(session, waitFor);
}

void Server::ended(Session& session, int error) {
    if (error != EAGAIN && error != EINTR) {
        close(session, KAVRI_CORE_STATUS_NO_ERROR, {});
    }
}

// A session that has to wait is listed with the one it waits for, and not read
// from until that one lets it go on.
void Server::waitOrGoOn(Session& session, Session* waitFor) {
    session.isHeldBack = waitFor != nullptr;
    if (waitFor != nullptr) {
        waitFor->heldBack.push_back(session.id);
        deadlines_.set({std::max(waitFor->lastProgress, now_) + limits_.holdBackTime,
                        DeadlineKind::patience, waitFor->id});
    }
    poll(session);
}

void Server::release(Session& slow) {
    for (const SessionId id : std::exchange(slow.heldBack, {})) {
        Session* session = find(id);
        if (session != nullptr && !session->isClosing) {
            waitOrGoOn(*session, protocol_.resume(*session));
        }
    }
}

// One write; what it leaves is for the next round, after the others.
void Server::writeTo(Session& session) {
    const ssize_t count = sendSome(session);
    if (count >= 0) {
        wrote(session, static_cast<std::size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
        // The peer is gone. What it sent before may still be there to be read;
        // the end of that closes the session.
        wrote(session, session.outbox.bytes());
    }
    if (!session.outbox.empty() && !session.watched) {
        session.watched = true;
        session.lastProgress = now_;
        deadlines_.set({now_ + limits_.progressTime, DeadlineKind::progress, session.id});
    }
    poll(session);
}

void Server::wrote(Session& session, std::size_t count) {
    session.outbox.consume(count);
    session.lastProgress = now_;
    if (router_.hasRoomAgain(session)) {
        session.patienceOver = false;
        if (!session.heldBack.empty()) {
            release(session);
        }
    }
}

void Server::checkProgress(Session& session) {
    session.watched = false;
    if (session.outbox.empty()) {
        return;
    }
    const Clock::time_point due = session.lastProgress + limits_.progressTime;
    if (due <= now_) {
        close(session, KAVRI_CORE_STATUS_IPC_OVERLOADED,
              "took nothing of what waits for it for too long");
        return;
    }
    session.watched = true;
    deadlines_.set({due, DeadlineKind::progress, session.id});
}

void Server::checkPatience(Session& session) {
    if (session.heldBack.empty() || session.patienceOver) {
        return;
    }
    const Clock::time_point due = session.lastProgress + limits_.holdBackTime;
    if (due > now_) {
        deadlines_.set({due, DeadlineKind::patience, session.id});
        return;
    }
    session.patienceOver = true;
    release(session);
}

// Tells the kernel what the session is to be woken for. One that is held back
// and has nothing to take is left out altogether: its peer's end would otherwise
// be reported again and again. What is written at the end of this round anyway
// needs no watching yet.
void Server::poll(Session& session) {
    const std::uint32_t wanted =
        (session.isHeldBack ? 0U : static_cast<std::uint32_t>(EPOLLIN)) |
        (session.outbox.empty() || session.listedForWriting ? 0U
                                                            : static_cast<std::uint32_t>(EPOLLOUT));
    if (wanted == session.interest || session.isClosing) {
        return;
    }
    epoll_event event{};
    event.events = wanted;
    event.data.u64 = markOf(session.id);
    int change = EPOLL_CTL_MOD;
    if (session.interest == 0) {
        change = EPOLL_CTL_ADD;
    } else if (wanted == 0) {
        change = EPOLL_CTL_DEL;
    }
    if (::epoll_ctl(readiness_.descriptor(), change, session.descriptor, &event) == 0) {
        session.interest = wanted;
    } else {
        close(session, KAVRI_CORE_STATUS_OUT_OF_RESOURCES,
              "the kernel cannot watch the connection");
    }
}

void Server::close(Session& session, kavri_core_status status, std::string_view reason) {
    if (session.isClosing) {
        return;
    }
    session.isClosing = true;
    closing_.push_back(&session);
    if (reason.empty()) {
        return;  // the peer closed; nobody is there to be told
    }
    if (!stopping_) {
        spdlog::warn("closing the connection of process {} of user {}: {}", session.process,
                     session.user, reason);
    }
    session.outbox.append(goodbyeFrame(status, reason));
}

void Server::remove(Session& session) {
    sendSome(session);  // one try to say why
    router_.forget(session);
    release(session);
    std::erase(router_.toWrite(), &session);
    sessions_.remove(session);
}

}  // namespace kavri::broker
