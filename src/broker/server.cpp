// The broker's loop; see server.h.
#include "broker/server.h"

#include <linux/sockios.h>
#include <spdlog/spdlog.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>

namespace kavri::broker {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

namespace {

// What an event belongs to: a session's id, or one of these.
constexpr std::uint64_t listenerMark = UINT64_MAX;
constexpr std::uint64_t stopMark = UINT64_MAX - 1;

constexpr std::chrono::milliseconds listenPause{100};
constexpr std::size_t piecesPerWrite = 64;
// Memory that is kept for use again goes back to the system after such a pause.
constexpr std::chrono::milliseconds pauseBeforeTrim{1000};

std::uint64_t markOf(SessionId id) {
    return (static_cast<std::uint64_t>(id.generation) << 32U) | id.index;
}

SessionId idOf(std::uint64_t mark) {
    return {static_cast<std::uint32_t>(mark), static_cast<std::uint32_t>(mark >> 32U)};
}

Frame goodbyeFrame(kavri_core_status status, std::string_view reason) {
    Frame frame;
    frame.type = FrameType::goodbye;
    frame.status = static_cast<std::uint16_t>(status);
    frame[Field::payload] = reason;
    return frame;
}

void watch(int epoll, int descriptor, std::uint64_t mark) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = mark;
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

// What the kernel holds for the peer and it has not taken, with the kernel's own
// overhead.
std::size_t bytesInSocket(const Session& session) {
    int bytes = 0;
    return ::ioctl(session.descriptor, SIOCOUTQ, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

ssize_t sendSome(const Session& session) {
    std::array<iovec, piecesPerWrite> pieces;
    const std::size_t count = session.sendQueue.gather(pieces.data(), pieces.size());
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

Server::Server(ServerOptions options, Listener& listener)
    : limits_(options.limits),
      policy_(std::move(options.policy)),
      listener_(listener),
      stopDescriptor_(options.stopDescriptor),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      router_(limits_, policy_, pool_,
              {[this](Session& session, std::string_view reason) {
                   close(session, KAVRI_CORE_STATUS_IPC_OVERLOADED, reason);
               },
               [](const Session& session, std::string_view what) {
                   spdlog::warn("process {} of user {} {}", session.process, session.user, what);
               }}),
      protocol_(limits_, router_, pool_, std::move(options.identity),
                [this](Session& session, kavri_core_status status, std::string_view reason) {
                    close(session, status, reason);
                }),
      events_(eventsPerRound),
      readBuffer_(BufferPool::standardBytes + readBytes) {
    if (epoll_ < 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
    watch(epoll_, stopDescriptor_, stopMark);
    watch(epoll_, listener_.descriptor(), listenerMark);
    listening_ = true;
}

Server::~Server() {
    for (Place& place : places_) {
        if (place.session != nullptr) {
            ::close(place.session->descriptor);
        }
    }
    ::close(epoll_);
}

void Server::run() {
    while (!stopping_) {
        const std::size_t count = waitForEvents();
        for (std::size_t i = 0; i < count; ++i) {
            handleEvent(events_[i]);
        }
        handleDeadlines();
        finishRound();
    }
    stop();
}

std::size_t Server::waitForEvents() {
    int count = 0;
    const auto look = [this, &count](int timeoutMs) {
        count = ::epoll_wait(epoll_, events_.data(), static_cast<int>(events_.size()), timeoutMs);
        return count > 0;
    };
    if (spin_.until([&look] { return look(0); })) {
        now_ = Clock::now();
    } else {
        const Clock::time_point begin = Clock::now();
        const bool somethingCame = look(sleepTimeMs(begin));
        now_ = Clock::now();
        somethingCame ? spin_.slept(now_ - begin) : pool_.trim();
    }
    return count > 0 ? static_cast<std::size_t>(count) : 0;
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
    if (event.data.u64 == stopMark) {
        stopping_ = true;
        return;
    }
    if (event.data.u64 == listenerMark) {
        acceptAll();
        return;
    }
    Session* session = find(idOf(event.data.u64));
    if (session == nullptr || session->isClosing) {
        return;
    }
    if ((event.events & EPOLLOUT) != 0) {
        writeTo(*session);
    }
    if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !session->isBlocked() &&
        !session->isClosing) {
        session->large ? readLarge(*session) : readFrom(*session);
    }
}

void Server::handleDeadlines() {
    while (const auto due = deadlines_.takeDue(now_)) {
        if (due->kind == DeadlineKind::listen) {
            if (!listening_) {
                watch(epoll_, listener_.descriptor(), listenerMark);
                listening_ = true;
            }
            continue;
        }
        Session* session = find(due->session);
        if (session == nullptr || session->isClosing) {
            continue;
        }
        switch (due->kind) {
            case DeadlineKind::handshake:
                if (session->role == Role::unknown) {
                    close(*session, KAVRI_CORE_STATUS_IPC_REFUSED, "said no hello in time");
                }
                break;
            case DeadlineKind::drain:
                checkDrain(*session);
                break;
            default:
                checkFrame(*session);
                break;
        }
    }
}

// Writing can let others go on, which fills send queues; closing tells others. So
// both go on until neither has anything left.
void Server::finishRound() {
    while (!router_.toWrite().empty() || !closing_.empty()) {
        std::vector<Session*>& toWrite = router_.toWrite();
        for (std::size_t i = 0; i < toWrite.size(); ++i) {
            Session& session = *toWrite[i];
            session.listedForWriting = false;
            if (!session.isClosing) {
                writeTo(session);
            }
        }
        toWrite.clear();
        for (std::size_t i = 0; i < closing_.size(); ++i) {
            remove(*closing_[i]);
        }
        closing_.clear();
    }
}

void Server::stop() {
    for (const Place& place : places_) {
        if (place.session != nullptr) {
            close(*place.session, KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE,
                  "the broker is stopping");
        }
    }
    finishRound();
}

void Server::acceptAll() {
    bool outOfDescriptors = false;
    while (const auto accepted = listener_.accept(outOfDescriptors)) {
        open(*accepted);
    }
    if (outOfDescriptors) {
        spdlog::error("cannot accept a connection: {}; trying again shortly",
                      std::generic_category().message(errno));
        ::epoll_ctl(epoll_, EPOLL_CTL_DEL, listener_.descriptor(), nullptr);
        listening_ = false;
        deadlines_.set({now_ + listenPause, DeadlineKind::listen, {}});
    }
}

void Server::open(const Accepted& accepted) {
    if (!policy_.connect.contains(accepted.user)) {
        turnAway(accepted, KAVRI_CORE_STATUS_IPC_REFUSED, "this user may not connect");
        return;
    }
    UserAccount& account = users_[accepted.user];
    if (connections_ >= limits_.connections || account.connections >= limits_.connectionsPerUser) {
        turnAway(accepted, KAVRI_CORE_STATUS_IPC_OVERLOADED,
                 "the broker has as many connections as it may");
        return;
    }
    if (freePlaces_.empty()) {
        freePlaces_.push_back(static_cast<std::uint32_t>(places_.size()));
        places_.emplace_back();
    }
    const std::uint32_t index = freePlaces_.back();
    freePlaces_.pop_back();
    Place& place = places_[index];
    place.session = std::make_unique<Session>(SessionId{index, place.generation}, accepted.user,
                                              account, pool_);
    Session& session = *place.session;
    session.process = accepted.process;
    session.descriptor = accepted.descriptor;
    ++connections_;
    ++account.connections;
    deadlines_.set({now_ + limits_.handshakeTime, DeadlineKind::handshake, session.id});
    poll(session);
    readFrom(session);  // its hello is mostly there already
}

// A peer that just connected has room for the reason.
void Server::turnAway(const Accepted& accepted, kavri_core_status status, std::string_view reason) {
    spdlog::warn("process {} of user {} turned away: {}", accepted.process, accepted.user, reason);
    std::string bytes;
    interfaces::appendEncoded(goodbyeFrame(status, reason), bytes);
    ::send(accepted.descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ::close(accepted.descriptor);
}

void Server::readFrom(Session& session) {
    char* const begin = readBuffer_.data() + session.backlogBytes;
    const ssize_t count = ::recv(session.descriptor, begin, readBytes, 0);
    if (count <= 0) {
        ended(session, count == 0 ? 0 : errno);
        return;
    }
    if (session.backlog) {
        std::memcpy(readBuffer_.data(), session.backlogBegin(), session.backlogBytes);
        session.takeBacklog();
    }
    const std::size_t total =
        std::exchange(session.backlogBytes, 0) + static_cast<std::size_t>(count);
    takeInput(session, [&] { return protocol_.take(session, readBuffer_.data(), total); });
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
    session.largeFilled += static_cast<std::uint32_t>(filled);
    takeInput(session, [&] {
        Session* waitFor = protocol_.takeLarge(session);
        if (waitFor != nullptr) {
            protocol_.keep(session, readBuffer_.data(), behind);
        } else if (behind > 0 && !session.isClosing) {
            waitFor = protocol_.take(session, readBuffer_.data(), behind);
        }
        return waitFor;
    });
}

// Running out of memory costs the session whose input needed it, and no other.
template <typename Take>
void Server::takeInput(Session& session, Take take) {
    try {
        waitOrGoOn(session, take());
    } catch (const std::bad_alloc&) {
        close(session, KAVRI_CORE_STATUS_OUT_OF_RESOURCES,
              "the broker has no memory for what it sends");
    }
}

void Server::ended(Session& session, int error) {
    if (error != EAGAIN && error != EINTR) {
        close(session, KAVRI_CORE_STATUS_NO_ERROR, {});
    }
}

// A session that has to wait is not read from until it is resumed.
void Server::waitOrGoOn(Session& session, Session* waitFor) {
    if (waitFor != nullptr && !session.isClosing) {
        router_.flowControl().block(session, *waitFor, now_);
        beginMeasuring(*waitFor);
        session.frameBegan = {};
    } else if (session.hasPartOfFrame()) {
        watchFrame(session);
    }
    poll(session);
}

void Server::release(Session& drained) {
    router_.flowControl().resumeWaiting(drained, [this](Session& sender) {
        if (!sender.isClosing) {
            takeInput(sender, [&] { return protocol_.resume(sender); });
        }
    });
}

// An incomplete frame has until progressTime after the time that its bytes so far
// take at the drain rate.
void Server::watchFrame(Session& session) {
    if (session.frameBegan == Clock::time_point{}) {
        session.frameBegan = now_;
    }
    if (!session.frameDeadlineIsSet) {
        deadlines_.set({now_ + limits_.progressTime, DeadlineKind::frame, session.id});
        session.frameDeadlineIsSet = true;
    }
}

void Server::checkFrame(Session& session) {
    session.frameDeadlineIsSet = false;
    if (session.isBlocked() || !session.hasPartOfFrame()) {
        return;
    }
    const std::chrono::duration<double> earned(static_cast<double>(session.bytesOfPart()) /
                                               static_cast<double>(limits_.drainBytesPerSecond));
    const Clock::time_point due = session.frameBegan + limits_.progressTime +
                                  std::chrono::duration_cast<Clock::duration>(earned);
    if (due <= now_) {
        close(session, KAVRI_CORE_STATUS_IPC_OVERLOADED, "left a frame incomplete for too long");
        return;
    }
    deadlines_.set({due, DeadlineKind::frame, session.id});
    session.frameDeadlineIsSet = true;
}

// One write; what it leaves is for the next round, after the others.
void Server::writeTo(Session& session) {
    const ssize_t count = sendSome(session);
    if (count >= 0) {
        wrote(session, static_cast<std::size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
        // The peer is gone. What it sent before may still be there to be read;
        // the end of that closes the session.
        wrote(session, session.sendQueue.bytes());
    }
    if (!session.sendQueue.empty()) {
        beginMeasuring(session);
    }
    poll(session);
}

void Server::wrote(Session& session, std::size_t count) {
    session.sendQueue.consume(count);
    if (session.congestion != nullptr) {
        session.congestion->writtenBytes += static_cast<std::int64_t>(count);
        release(session);
        endIfDrained(session);
    }
}

// From when something stays queued, or somebody waits: how fast does it go?
void Server::beginMeasuring(Session& session) {
    Congestion& congestion = router_.flowControl().congestionOf(session, now_);
    if (!congestion.isMeasured) {
        congestion.isMeasured = true;
        congestion.writtenBytes = static_cast<std::int64_t>(bytesInSocket(session));
        setDrainDeadline(session);
    }
}

// The peers' progress is looked at four times in the time after which one that
// stopped is given up on, and less often when it was.
void Server::setDrainDeadline(const Session& session) {
    constexpr std::chrono::milliseconds longest{50};
    const auto every =
        std::clamp<std::chrono::milliseconds>(std::min(limits_.stallTime, limits_.progressTime) / 4,
                                              std::chrono::milliseconds(1), longest);
    const int times = session.congestion->meter.isSteady() ? 1 : 4;
    deadlines_.set({now_ + every * times, DeadlineKind::drain, session.id});
}

void Server::checkDrain(Session& session) {
    if (session.congestion == nullptr) {
        return;
    }
    const std::size_t left = bytesInSocket(session);
    DrainMeter& meter = session.congestion->meter;
    meter.sample(now_, session.congestion->writtenBytes - static_cast<std::int64_t>(left), left);
    if (!session.sendQueue.empty() && meter.lastTaken() + limits_.progressTime <= now_) {
        close(session, KAVRI_CORE_STATUS_IPC_OVERLOADED,
              "took nothing of what waits for it for too long");
        return;
    }
    release(session);
    endIfDrained(session);
    if (session.congestion != nullptr) {
        setDrainDeadline(session);
    }
}

// A peer that took everything, and for which nobody waits, is not looked at.
void Server::endIfDrained(Session& session) {
    if (session.congestion != nullptr && session.sendQueue.empty() &&
        !session.congestion->somebodyWaits()) {
        session.congestion = nullptr;
        deadlines_.cancel(DeadlineKind::drain, session.id);
    }
}

// Tells the kernel what the session is to be woken for. One that is blocked
// and has nothing to take is left out altogether: its peer's end would otherwise
// be reported again and again. What is written at the end of this round anyway
// needs no watching yet.
void Server::poll(Session& session) {
    const std::uint32_t wanted = (session.isBlocked() ? 0U : static_cast<std::uint32_t>(EPOLLIN)) |
                                 (session.sendQueue.empty() || session.listedForWriting
                                      ? 0U
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
    if (::epoll_ctl(epoll_, change, session.descriptor, &event) == 0) {
        session.interest = wanted;
    } else {
        close(session, KAVRI_CORE_STATUS_OUT_OF_RESOURCES,
              "the kernel cannot watch the connection");
    }
}

Session* Server::find(SessionId id) {
    if (id.index >= places_.size() || places_[id.index].generation != id.generation) {
        return nullptr;
    }
    return places_[id.index].session.get();
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
    try {
        session.sendQueue.append(goodbyeFrame(status, reason));
    } catch (const std::bad_alloc&) {
        // Closed without a reason: there is no memory for one.
    }
}

void Server::remove(Session& session) {
    sendSome(session);  // one try to say why
    router_.forget(session);
    release(session);
    std::erase(router_.toWrite(), &session);
    deadlines_.cancel(DeadlineKind::drain, session.id);
    deadlines_.cancel(DeadlineKind::frame, session.id);
    ::close(session.descriptor);
    --connections_;
    --session.account.connections;
    Place& place = places_[session.id.index];
    ++place.generation;
    freePlaces_.push_back(session.id.index);
    place.session = nullptr;
    reserve_.restore();
}

}  // namespace kavri::broker
