// The sessions' input and output; see traffic.h.
#include "broker/traffic.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace kavri::broker {

namespace {

constexpr std::size_t piecesPerWrite = 64;
// Behind a large frame little is read, since that may be another large one.
constexpr std::size_t readBehindLargeBytes = 512;

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

Traffic::Traffic(Surroundings surroundings)
    : surroundings_(std::move(surroundings)),
      readBuffer_(BufferPool::standardBytes + mostReadBytes) {}

void Traffic::receive(Session& session, std::size_t mostBytes) {
    const bool isNew = session.role == Role::unknown;
    session.large ? readLarge(session) : readFrom(session, mostBytes);
    if (isNew && session.role != Role::unknown) {
        deadlines().cancel(DeadlineKind::handshake, session.id);
    }
}

void Traffic::sendLast(const Session& session) {
    sendSome(session);
}

void Traffic::readFrom(Session& session, std::size_t mostBytes) {
    char* const begin = readBuffer_.data() + session.backlogBytes;
    const ssize_t count = ::recv(session.descriptor, begin, mostBytes, 0);
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
    const std::uint64_t framesBefore = protocol().frames();
    takeInput(session, [&] { return protocol().take(session, readBuffer_.data(), total); });
    noteFrameSize(session, static_cast<std::size_t>(count), protocol().frames() - framesBefore);
}

// Grows step by step, so that one large frame among many small ones does not make the next
// read one of thousands of these.
void Traffic::noteFrameSize(Session& session, std::size_t bytes, std::uint64_t frames) {
    if (frames > 0) {
        session.typicalFrameBytes = static_cast<std::uint32_t>(
            std::min<std::size_t>(bytes / frames + 1, std::size_t{8} * session.typicalFrameBytes));
    }
}

// Straight into the large frame's own block; of what follows it little, since that
// may be another large one.
void Traffic::readLarge(Session& session) {
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
        Session* waitFor = protocol().takeLarge(session);
        if (waitFor != nullptr) {
            protocol().keep(session, readBuffer_.data(), behind);
        } else if (behind > 0 && !session.isClosing) {
            waitFor = protocol().take(session, readBuffer_.data(), behind);
        }
        return waitFor;
    });
}

// Running out of memory costs the session whose input needed it, and no other.
template <typename Take>
void Traffic::takeInput(Session& session, Take take) {
    try {
        waitOrGoOn(session, take());
    } catch (const std::bad_alloc&) {
        surroundings_.close(session, KAVRI_CORE_STATUS_OUT_OF_RESOURCES,
                            "the broker has no memory for what it sends");
    }
}

void Traffic::ended(Session& session, int error) {
    if (error != EAGAIN && error != EINTR) {
        surroundings_.close(session, KAVRI_CORE_STATUS_NO_ERROR, {});
    }
}

// A session that has to wait is not read from until it is resumed.
void Traffic::waitOrGoOn(Session& session, Session* waitFor) {
    if (waitFor != nullptr && !session.isClosing) {
        router().flowControl().block(session, *waitFor, now());
        beginMeasuring(*waitFor);
        session.frameBegan = {};
    } else if (session.hasPartOfFrame()) {
        watchFrame(session);
    }
    watch(session);
}

void Traffic::release(Session& drained) {
    router().flowControl().resumeWaiting(drained, [this](Session& sender) {
        if (!sender.isClosing) {
            takeInput(sender, [&] { return protocol().resume(sender); });
        }
    });
}

// An incomplete frame has until progressTime after the time that its bytes so far
// take at the drain rate.
void Traffic::watchFrame(Session& session) {
    if (session.frameBegan == Clock::time_point{}) {
        session.frameBegan = now();
    }
    if (!session.frameDeadlineIsSet) {
        deadlines().set({now() + limits().progressTime, DeadlineKind::frame, session.id});
        session.frameDeadlineIsSet = true;
    }
}

void Traffic::checkFrame(Session& session) {
    session.frameDeadlineIsSet = false;
    if (session.isBlocked() || !session.hasPartOfFrame()) {
        return;
    }
    const std::chrono::duration<double> earned(static_cast<double>(session.bytesOfPart()) /
                                               static_cast<double>(limits().drainBytesPerSecond));
    const Clock::time_point due = session.frameBegan + limits().progressTime +
                                  std::chrono::duration_cast<Clock::duration>(earned);
    if (due <= now()) {
        surroundings_.close(session, KAVRI_CORE_STATUS_IPC_OVERLOADED,
                            "left a frame incomplete for too long");
        return;
    }
    deadlines().set({due, DeadlineKind::frame, session.id});
    session.frameDeadlineIsSet = true;
}

// One write; what it leaves is for the next round, after the others.
void Traffic::writeTo(Session& session) {
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
    watch(session);
}

void Traffic::wrote(Session& session, std::size_t count) {
    session.sendQueue.consume(count);
    if (session.congestion != nullptr) {
        session.congestion->writtenBytes += static_cast<std::int64_t>(count);
        release(session);
        endIfDrained(session);
    }
}

// From when something stays queued, or somebody waits: how fast does it go?
void Traffic::beginMeasuring(Session& session) {
    Congestion& congestion = router().flowControl().congestionOf(session, now());
    if (!congestion.isMeasured) {
        congestion.isMeasured = true;
        congestion.writtenBytes = static_cast<std::int64_t>(bytesInSocket(session));
        setDrainDeadline(session);
    }
}

// The peers' progress is looked at four times in the time after which one that
// stopped is given up on, and less often when it was.
void Traffic::setDrainDeadline(const Session& session) {
    constexpr std::chrono::milliseconds longest{50};
    const auto every = std::clamp<std::chrono::milliseconds>(
        std::min(limits().stallTime, limits().progressTime) / 4, std::chrono::milliseconds(1),
        longest);
    const int times = session.congestion->meter.isSteady() ? 1 : 4;
    deadlines().set({now() + every * times, DeadlineKind::drain, session.id});
}

void Traffic::checkDrain(Session& session) {
    if (session.congestion == nullptr) {
        return;
    }
    const std::size_t left = bytesInSocket(session);
    DrainMeter& meter = session.congestion->meter;
    meter.sample(now(), session.congestion->writtenBytes - static_cast<std::int64_t>(left), left);
    if (!session.sendQueue.empty() && meter.lastTaken() + limits().progressTime <= now()) {
        surroundings_.close(session, KAVRI_CORE_STATUS_IPC_OVERLOADED,
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
void Traffic::endIfDrained(Session& session) {
    if (session.congestion != nullptr && session.sendQueue.empty() &&
        !session.congestion->somebodyWaits()) {
        session.congestion = nullptr;
        deadlines().cancel(DeadlineKind::drain, session.id);
    }
}

// Registers the readiness that the session needs. One that is blocked
// and has nothing queued is left out altogether: its peer's end would otherwise
// be reported again and again. What is written at the end of this round anyway
// needs no watching yet.
void Traffic::watch(Session& session) {
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
    if (::epoll_ctl(surroundings_.readiness.descriptor(), change, session.descriptor, &event) ==
        0) {
        session.interest = wanted;
    } else {
        surroundings_.close(session, KAVRI_CORE_STATUS_OUT_OF_RESOURCES,
                            "the kernel cannot watch the connection");
    }
}

}  // namespace kavri::broker
