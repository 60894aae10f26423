// The sessions' input and output; see traffic.h.
#include "broker/loop/traffic.h"

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

// What the kernel holds for the peer, with its own overhead.
std::size_t bytesInTransit(const Session& session) {
    if (session.transport != nullptr) {
        return session.transport->bytesInTransit();
    }
    int bytes = 0;
    return ::ioctl(session.descriptor, SIOCOUTQ, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

ssize_t sendSome(const Session& session) {
    std::array<iovec, piecesPerWrite> pieces;
    const std::size_t count = session.sendQueue.gather(pieces.data(), pieces.size());
    if (session.transport != nullptr) {
        return static_cast<ssize_t>(session.transport->send({pieces.data(), count}));
    }
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

bool Traffic::receive(Session& session, std::size_t mostBytes) {
    const bool isNew = session.role == Role::unknown;
    const bool hasMore = session.input.large ? readLarge(session) : readFrom(session, mostBytes);
    if (isNew && session.role != Role::unknown) {
        deadlines().cancel(DeadlineKind::handshake, session.id);
    }
    return hasMore;
}

void Traffic::sendLast(const Session& session) {
    sendSome(session);
}

bool Traffic::readFrom(Session& session, std::size_t mostBytes) {
    char* const begin = readBuffer_.data() + session.input.backlogBytes;
    const ssize_t count = ::recv(session.descriptor, begin, mostBytes, 0);
    if (count <= 0) {
        ended(session, count == 0 ? 0 : errno);
        return false;
    }
    if (session.input.backlog) {
        std::memcpy(readBuffer_.data(), session.input.backlogBegin(), session.input.backlogBytes);
        session.input.takeBacklog();
    }
    const std::size_t total =
        std::exchange(session.input.backlogBytes, 0) + static_cast<std::size_t>(count);
    const std::uint64_t framesBefore = protocol().frames();
    takeInput(session, [&] { return protocol().take(session, readBuffer_.data(), total); });
    noteFrameSize(session, static_cast<std::size_t>(count), protocol().frames() - framesBefore);
    return static_cast<std::size_t>(count) == mostBytes;
}

void Traffic::handle(Session& session, char* frames, std::size_t count) {
    takeInput(session, [&] { return protocol().take(session, frames, count); });
}

// Grows step by step, so that one large frame among many small ones does not make the next
// read one of thousands of these.
void Traffic::noteFrameSize(Session& session, std::size_t bytes, std::uint64_t frames) {
    if (frames > 0) {
        session.input.typicalFrameBytes = static_cast<std::uint32_t>(std::min<std::size_t>(
            bytes / frames + 1, std::size_t{8} * session.input.typicalFrameBytes));
    }
}

// Straight into the large frame's own block; of what follows it little, since that
// may be another large one.
bool Traffic::readLarge(Session& session) {
    wire::LargeFrame& large = session.input.largeFrame;
    std::array<iovec, 2> pieces{
        {{session.input.large->bytes() + large.receivedBytes(), large.missingBytes()},
         {readBuffer_.data(), wire::LargeFrame::readBehindBytes}}};
    const ssize_t count = ::readv(session.descriptor, pieces.data(), pieces.size());
    if (count <= 0) {
        ended(session, count == 0 ? 0 : errno);
        return false;
    }
    const std::size_t behind = large.add(static_cast<std::size_t>(count));
    takeInput(session, [&] {
        if (const auto blocked = protocol().takeLarge(session)) {
            protocol().keep(session, readBuffer_.data(), behind);
            return blocked;
        }
        return behind > 0 && !session.isClosing
                   ? protocol().take(session, readBuffer_.data(), behind)
                   : std::nullopt;
    });
    return static_cast<std::size_t>(count) >= mostReadBytes;
}

// Running out of memory costs the session whose input needed it, and no other.
template <typename Take>
void Traffic::takeInput(Session& session, Take take) {
    try {
        blockOrGoOn(session, take());
    } catch (const std::bad_alloc&) {
        surroundings_.close(session, CloseCause::outOfResources,
                            "the broker has no memory for what it sends");
    }
}

void Traffic::ended(Session& session, int error) {
    if (error != EAGAIN && error != EINTR) {
        surroundings_.close(session, CloseCause::leftByPeer, {});
    }
}

// A blocked session is not read from until it is resumed.
void Traffic::blockOrGoOn(Session& session, const std::optional<Blocked>& blocked) {
    if (blocked && !session.isClosing) {
        router().flowControl().block(session, blocked->on, now());
        beginMeasuring(blocked->on);
        session.input.frameBegan = {};
    } else if (session.input.hasPartOfFrame()) {
        watchFrame(session);
    }
    watch(session);
}

bool Traffic::release(Session& drained) {
    const bool isFinished = router().flowControl().resumeWaiting(
        drained, [this] { return resumedFrames_ < resumedFramesPerRound; },
        [this](Session& sender) {
            const std::uint64_t framesBefore = protocol().frames();
            if (!sender.isClosing) {
                takeInput(sender, [&] { return protocol().resume(sender); });
            }
            resumedFrames_ += protocol().frames() - framesBefore + 1;
        });
    if (!isFinished && !std::exchange(drained.listedForRelease, true)) {
        unreleased_.push_back(&drained);
    }
    return isFinished;
}

void Traffic::releaseRest() {
    resumedFrames_ = 0;
    for (Session* session : std::exchange(unreleased_, {})) {
        session->listedForRelease = false;
        release(*session);
        endIfDrained(*session);
    }
}

// An incomplete frame has until progressTime after the time that its bytes so far
// take at the drain rate.
void Traffic::watchFrame(Session& session) {
    if (session.input.frameBegan == Clock::time_point{}) {
        session.input.frameBegan = now();
    }
    if (!session.input.frameDeadlineIsSet) {
        deadlines().set({now() + limits().progressTime, DeadlineKind::frame, session.id});
        session.input.frameDeadlineIsSet = true;
    }
}

void Traffic::checkFrame(Session& session) {
    session.input.frameDeadlineIsSet = false;
    if (session.isBlocked() || !session.input.hasPartOfFrame()) {
        return;
    }
    const std::chrono::duration<double> earned(static_cast<double>(session.input.bytesOfPart()) /
                                               static_cast<double>(limits().drainBytesPerSecond));
    const Clock::time_point due = session.input.frameBegan + limits().progressTime +
                                  std::chrono::duration_cast<Clock::duration>(earned);
    if (due <= now()) {
        surroundings_.close(session, CloseCause::incompleteFrame,
                            "left a frame incomplete for too long");
        return;
    }
    deadlines().set({due, DeadlineKind::frame, session.id});
    session.input.frameDeadlineIsSet = true;
}

void Traffic::writeTo(Session& session) {
    const ssize_t count = sendSome(session);
    if (count >= 0) {
        wrote(session, static_cast<std::size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
        // The peer has closed. What it sent before may still have to be read; the end of
        // that input closes the session.
        wrote(session, session.sendQueue.bytes());
    }
    if (!session.sendQueue.empty()) {
        beginMeasuring(session);
    }
    watch(session);
}

void Traffic::wrote(Session& session, std::size_t count) {
    session.sendQueue.consume(count);
    if (session.monitor != nullptr && session.sendQueue.empty()) {
        router().tap().drained(session);
    }
    if (session.congestion != nullptr) {
        session.congestion->writtenBytes += static_cast<std::int64_t>(count);
        release(session);
        endIfDrained(session);
    }
}

// Measuring begins when bytes stay queued or a sender is blocked.
void Traffic::beginMeasuring(Session& session) {
    Congestion& congestion = router().flowControl().congestionOf(session, now());
    if (!congestion.isMeasured) {
        congestion.isMeasured = true;
        congestion.writtenBytes = static_cast<std::int64_t>(bytesInTransit(session));
        setDrainDeadline(session);
    }
}

// Four samples within the time after which a stopped peer counts as stalled, and fewer
// once it does.
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
    const std::size_t left = bytesInTransit(session);
    DrainMeter& meter = session.congestion->meter;
    meter.sample(now(), session.congestion->writtenBytes - static_cast<std::int64_t>(left), left);
    // What a monitor does not read is bounded, and nobody waits for it.
    if (!session.sendQueue.empty() && session.monitor == nullptr &&
        meter.lastTaken() + limits().progressTime <= now()) {
        surroundings_.close(session, CloseCause::notDraining,
                            "its send queue made no progress for too long");
        return;
    }
    release(session);
    endIfDrained(session);
    if (session.congestion != nullptr) {
        setDrainDeadline(session);
    }
}

// Measuring ends when the queue is empty and no sender is blocked.
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
    if (session.transport != nullptr) {
        session.transport->watchInput(!session.isBlocked());
        return;
    }
    const std::uint32_t wanted =
        (session.isBlocked() ? 0U : static_cast<std::uint32_t>(EPOLLIN)) |
        (session.sendQueue.empty() || session.listedForWriting || session.listedForFanOut
             ? 0U
             : static_cast<std::uint32_t>(EPOLLOUT));
    if (!session.isClosing && !surroundings_.readiness.watch(session, wanted)) {
        closeUnwatched(session);
    }
}

void Traffic::setBulk(Session& session, bool isBulk) {
    if (!session.isClosing && !surroundings_.readiness.setBulk(session, isBulk)) {
        closeUnwatched(session);
    }
}

void Traffic::closeUnwatched(Session& session) {
    surroundings_.close(session, CloseCause::outOfResources,
                        "the kernel cannot watch the connection");
}

}  // namespace kavri::broker
