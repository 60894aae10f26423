// The broker's loop; see server.h.
#include "broker/loop/server.h"

#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>

#include "base/assert.h"
#include "broker/routing/rights.h"

namespace kavri::broker {

namespace {

// Memory that is kept for use again goes back to the system after such a pause.
constexpr std::chrono::milliseconds pauseBeforeTrim{1000};

// How many sessions each event that this one publishes is delivered to.
std::size_t receiversOf(const Session& session) {
    const Category* served = session.asResponder.served;
    return served == nullptr ? 0 : served->subscribers.size();
}

}  // namespace

Server::Server(ServerOptions options, Listener& listener, const Log& log)
    : limits_(options.limits),
      policy_(std::move(options.policy)),
      identity_(std::move(options.identity)),
      facts_(std::move(options.facts)),
      log_(log),
      router_(
          limits_, policy_, pool_,
          {[this](Session& session, CloseCause cause, std::string_view reason) {
               close(session, cause, reason);
           },
           [this](const Session& session, std::string_view what) {
               if (log_.admits(what)) {
                   spdlog::warn("process {} of user {} {}", session.process, session.user, what);
               }
           },
           [this](Session& manager, std::uint64_t token) { return reports_.begin(manager, token); },
           Moment::now}),
      reports_(router_, {limits_, facts_, counts_, [this] { return sessions_.size(); },
                         [this](std::uint64_t place) { return sessions_.firstFrom(place); },
                         [this](std::uint64_t least) { return sessions_.firstUserFrom(least); }}),
      protocol_(limits_, router_, pool_, identity_,
                [this](Session& session, CloseCause cause, std::string_view reason) {
                    close(session, cause, reason);
                }),
      acceptor_(listener, {readiness_, deadlines_, sessions_, limits_, policy_, counts_,
                           [this](const Accepted& accepted) { open(accepted); }}),
      traffic_({limits_, router_, protocol_, deadlines_, readiness_, now_,
                [this](Session& session, CloseCause cause, std::string_view reason) {
                    close(session, cause, reason);
                }}),
      heartbeat_(std::move(options.heartbeat)),
      clock_(Clock::now()),
      now_(clock_.now()) {}

void Server::join(std::unique_ptr<Bus> bus, LinkOptions options) {
    link_ = std::make_unique<Link>(
        std::move(bus), std::move(options), identity_,
        Link::Surroundings{router_, now_,
                           [this](Role role, Transport& transport, Session* payer) {
                               return openRemote(role, transport, payer);
                           },
                           [this](Session& session, CloseCause cause, std::string_view reason) {
                               close(session, cause, reason);
                           },
                           [this](Session& session, char* frames, std::size_t count) {
                               traffic_.handle(session, frames, count);
                           },
                           [this](std::string_view what) {
                               if (log_.admits(what)) {
                                   spdlog::warn("{}", what);
                               }
                           }});
    router_.join(*link_);
    readiness_.watch(link_->descriptor(), linkMark);
    link_->begin();
}

void Server::run(int signalDescriptor, std::function<void()> onSignal) {
    onSignal_ = std::move(onSignal);
    readiness_.watch(signalDescriptor, signalMark);
    filesChanged_ = true;  // perhaps before they were watched
    while (!stopping_) {
        waitForEvents();
        traffic_.releaseRest();
        for (const epoll_event& event : readiness_.events()) {
            handleEvent(event);
        }
        if (stopping_) {
            break;
        }
        if (std::exchange(bulkIsReady_, false)) {
            // The others' output does not wait for the bulk.
            router_.toWrite().writeAllOfOne([this](Session& session) { write(session); });
            handleBulk();
        }
        handleDeadlines();
        advanceLink();
        if (std::exchange(filesChanged_, false)) {
            keepListening();
        }
        if (std::exchange(connectionsWait_, false)) {
            acceptor_.acceptSome(readiness_.events().size(), now_);
        }
        reports_.advance();
        if (router_.tap().due()) {
            router_.tap().writeDue(Clock::now());
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
        readiness_.poll();
    } else {
        wire::Spin& spin = sentOverLink_ ? spinForLink_ : spin_;
        if (!spin.until([this] { return readiness_.poll(); })) {
            planned = sleep(spin);
        }
    }
    const Clock::time_point woken = Clock::now();
    clock_.advance(woken, planned);
    now_ = clock_.now();
    heartbeat_.beatIfDue(woken);
}

// How long it was to sleep at most.
Clock::duration Server::sleep(wire::Spin& spin) {
    const Clock::time_point begin = Clock::now();
    const auto until = sleepUntil(begin);
    const bool wasWoken = readiness_.wait(until);
    const Clock::time_point end = Clock::now();
    if (wasWoken) {
        spin.slept(end - begin);
    } else if (until && *until <= end) {
        pool_.trim();
    }
    return until ? *until - begin : Clock::duration::max();
}

// The next deadline or heartbeat; and no later than the pause before a trim while the pool
// keeps memory.
std::optional<Clock::time_point> Server::sleepUntil(Clock::time_point now) const {
    std::optional<Clock::time_point> until = heartbeat_.due();
    const auto noLaterThan = [&until](Clock::time_point due) {
        until = until ? std::min(*until, due) : due;
    };
    if (!pool_.isEmpty()) {
        noLaterThan(now + pauseBeforeTrim);
    }
    if (const auto written = router_.tap().due()) {
        noLaterThan(*written);
    }
    for (const auto& next : {deadlines_.next(), link_ ? link_->due() : std::nullopt}) {
        if (next) {
            noLaterThan(now + (*next - clock_.at(now)));
        }
    }
    return until;
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
        case linkMark:
            link_->handle();
            return;
        case bulkMark:
            bulkIsReady_ = true;
            return;
        default:
            break;
    }
    Session* session = find(idOf(event.data.u64));
    if (session != nullptr && !session->isClosing) {
        handleSession(*session, event);
    }
}

void Server::handleSession(Session& session, const epoll_event& event) {
    if ((event.events & EPOLLOUT) != 0) {
        traffic_.writeTo(session);
    }
    if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !session.isBlocked() &&
        !session.isClosing) {
        receive(session);
    }
}

void Server::handleBulk() {
    readiness_.waitBulk();
    for (const epoll_event& event : readiness_.bulkEvents()) {
        handleEvent(event);
    }
}

// A session that has more to be read than its share delays others, unless it is the
// only one that is ready.
void Server::receive(Session& session) {
    if (receiversOf(session) <= 1) {
        othersSentAt_ = now_;
    }
    const bool hasMore = traffic_.receive(session, readShare(session));
    const bool isBulk = hasMore && (session.isBulk || readiness_.events().size() > 1);
    if (isBulk != session.isBulk) {
        traffic_.setBulk(session, isBulk);
    }
}

const Server::FanOutShare& Server::fanOutShare() const {
    return now_ - othersSentAt_ < othersStay ? fanOutBesideOthers : fanOutAlone;
}

// Each frame of a responder may be an event for all subscribers, so each byte read
// from it costs that many times as much.
std::size_t Server::readShare(const Session& session) const {
    const std::size_t ready = std::max<std::size_t>(1, readiness_.events().size());
    if (const std::size_t receivers = receiversOf(session); receivers > 1) {
        const FanOutShare& share = fanOutShare();
        const std::size_t bytesEach = share.deliveredBytes / std::max(ready, receivers);
        return std::clamp<std::size_t>(
            bytesEach - std::min(bytesEach, deliveryCostBytes),
            std::max<std::size_t>(share.leastReadBytes, session.input.typicalFrameBytes),
            Traffic::mostReadBytes);
    }
    const std::size_t bulk = std::max<std::size_t>(1, readiness_.bulkEvents().size());
    const std::size_t frames =
        session.isBulk ? std::max(bulkFramesPerRound / bulk, leastFramesPerRead)
                       : std::clamp(framesPerRound / ready, leastFramesPerRead, framesPerRead);
    return std::min(frames * session.input.typicalFrameBytes, Traffic::mostReadBytes);
}

void Server::advanceLink() {
    if (link_ != nullptr) {
        link_->advance();
    }
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
            // Its hello may have arrived in time and not been read yet.
            if (session.role == Role::unknown) {
                traffic_.receive(session, readShare(session));
            }
            if (session.role == Role::unknown && !session.isClosing) {
                close(session, CloseCause::lateHello, "its hello did not arrive in time");
            }
            break;
        case DeadlineKind::drain:
            traffic_.checkDrain(session);
            break;
        default:
            traffic_.checkFrame(session);
            break;
    }
}

void Server::write(Session& session) {
    if (!session.isClosing) {
        traffic_.writeTo(session);
    }
}

void Server::finishRound() {
    const auto writeTo = [this](Session& session) { write(session); };
    router_.toWrite().writeAllOfOne(writeTo);
    router_.toWrite().writeSomeOfMany(fanOutShare().writes, writeTo);
    const auto goodbyes = static_cast<std::ptrdiff_t>(std::min(closing_.size(), goodbyesPerRound));
    for (std::ptrdiff_t i = 0; i < goodbyes; ++i) {
        leave(*closing_[static_cast<std::size_t>(i)]);
    }
    closing_.erase(closing_.begin(), closing_.begin() + goodbyes);
    std::erase_if(leaving_, [this](Session* session) {
        const bool nobodyWaits = traffic_.release(*session);
        if (nobodyWaits) {
            remove(*session);
        }
        return nobodyWaits;
    });
    if (link_ != nullptr) {
        sentOverLink_ = link_->flush();
    }
}

void Server::sayGoodbye() {
    stopping_ = true;
    const std::string reason =
        failure_.empty() ? "the broker is stopping" : "the broker is stopping: " + failure_;
    sessions_.forEach([&](Session& session) { close(session, CloseCause::stopping, reason); });
    while (!closing_.empty() || !leaving_.empty()) {
        traffic_.releaseRest();
        finishRound();
    }
}

void Server::reconfigure(wire::Limits limits, Policy policy) {
    limits.payloadBytes = limits_.payloadBytes;
    limits_ = limits;
    policy_ = std::move(policy);
    router_.policyChanged();
    if (link_ != nullptr) {
        link_->policyChanged();
    }
    sessions_.forEach([this](Session& session) {
        if (const std::string_view reason = lostRight(session, policy_); !reason.empty()) {
            close(session, CloseCause::notPermitted, reason);
        }
    });
}

void Server::keepListening() {
    try {
        acceptor_.keepListening(now_);
    } catch (const CannotListen& error) {
        failure_ = "the socket was removed or replaced: " + std::string(error.what());
        stopping_ = true;
    }
}

}  // namespace kavri::broker
