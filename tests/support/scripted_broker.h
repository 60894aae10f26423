// The broker's router and protocol with sessions that have no sockets: a test
// says frames for a session, and hears what waits in its sendQueue.
//
// Stands where the broker's loop stands: feeds what a session says in as the
// loop does, keeps the table of sessions, blocks and resumes senders, and notes
// what is closed and why. It knows no time: that somebody is given up on is said
// by the test.
#ifndef KAVRI_TESTS_SUPPORT_SCRIPTED_BROKER_H
#define KAVRI_TESTS_SUPPORT_SCRIPTED_BROKER_H

#include <sys/uio.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "broker/management/reports.h"
#include "broker/routing/protocol.h"
#include "broker/routing/router.h"
#include "support/frames.h"

namespace kavri::tests {

using broker::Session;
using broker::SessionId;

inline constexpr uid_t someUser = 1000;
inline constexpr uid_t otherUser = 1001;

class ScriptedBroker {
  public:
    // `someUser` may manage it.
    explicit ScriptedBroker(const wire::Limits& itsLimits = {}, broker::Policy itsPolicy = {})
        : limits(itsLimits), policy(managedBySomeUser(std::move(itsPolicy))) {}

    // A session that has said nothing yet.
    Session& connect(uid_t user = someUser) { return insert(user, accounts_[user]); }
    // One without a connection, as the link opens them.
    Session& connectRemote(broker::Role role, broker::Transport& transport, const Session* payer) {
        Session& session = insert(broker::linkUser,
                                  payer == nullptr ? accounts_[broker::linkUser] : payer->account);
        session.role = role;
        session.transport = &transport;
        return session;
    }
    // `visit` must neither add nor remove sessions.
    template <typename Visit>
    void forEachSession(const Visit& visit) {
        for (const Place& place : places_) {
            if (place.session != nullptr) {
                visit(*place.session);
            }
        }
    }

    // One that said hello and has heard the welcome.
    Session& join(std::string_view role, uid_t user = someUser) {
        Session& session = connect(user);
        say(session, makeFrame(FrameType::hello, wire::protocolVersion, {.identifier = role}));
        hearBytes(session);
        return session;
    }
    Session& initiator(uid_t user = someUser) { return join("initiator", user); }
    Session& responder(std::string_view category, uid_t user = someUser) {
        Session& session = join("responder", user);
        say(session, makeFrame(FrameType::registration, 1, {.category = category}));
        hearBytes(session);
        return session;
    }
    Session& subscriber(std::string_view category, uid_t user = someUser) {
        Session& session = initiator(user);
        say(session, makeFrame(FrameType::subscribe, 1, {.category = category}));
        hearBytes(session);
        return session;
    }

    // Returns the session that the frame must wait for, or null.
    Session* say(Session& from, const Frame& frame) { return sayBytes(from, encode(frame)); }

    // The same with any bytes: as much as the loop would have read at once.
    Session* sayBytes(Session& from, std::string_view bytes) {
        return blockOn(from, takeBytes(from, bytes));
    }

    // The sender's turn has come, or a test says so.
    Session* resume(Session& sender) {
        broker::FlowControl::unblock(sender);
        return blockOn(sender, protocol.resume(sender));
    }
    // Those that wait for the session, as the loop does after each write to it.
    // Returns whether all were resumed for whom there is room, of so many at most.
    bool resumeAllAt(Session& drained, std::size_t most = SIZE_MAX) {
        return router.flowControl().resumeWaiting(
            drained, [&most] { return most-- > 0; },
            [this](Session& sender) {
                resumed.push_back(&sender);
                if (!sender.isClosing) {
                    blockOn(sender, protocol.resume(sender));
                }
            });
    }
    std::vector<Session*> resumed;

    // The session has taken nothing for far too long.
    void giveUpOn(Session& session) {
        router.flowControl()
            .congestionOf(session, now)
            .meter.sample(now + std::chrono::hours(1), 0, 1);
    }

    // All that waits for the session, which takes it.
    std::string hearBytes(Session& session) {
        std::string bytes;
        while (!session.sendQueue.empty()) {
            iovec piece{};
            if (session.sendQueue.gather(&piece, 1) != 1 || piece.iov_len == 0) {
                throw std::logic_error("a send queue with bytes in it gives none");
            }
            bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
            session.sendQueue.consume(piece.iov_len);
        }
        router.toWrite().remove(session);
        return bytes;
    }
    // The same as text, one frame a line.
    std::string hear(Session& session) { return describeAll(hearBytes(session)); }
    // The token of the one frame that waits for the session.
    std::uint64_t hearToken(Session& session) {
        const std::string bytes = hearBytes(session);
        return framesIn(bytes).at(0).token;
    }

    // The session goes, as at the end of the round in which it was closed.
    void leave(Session& session) {
        session.isClosing = true;
        router.forget(session);
        reports.forget(session);
        if (broker::Transport* const transport = std::exchange(session.transport, nullptr)) {
            transport->end();
        }
        resumeAllAt(session);
        router.toWrite().remove(session);
        closings_.erase(session.id.index);
        Place& place = places_[session.id.index];
        ++place.generation;
        place.session = nullptr;
    }

    // "status 14: the reason", or empty where the session was not closed.
    std::string closing(const Session& session) const {
        const auto found = closings_.find(session.id.index);
        return found == closings_.end() ? std::string() : found->second;
    }

    std::size_t userBytes(uid_t user) { return accounts_[user].memory.bytes(); }

    broker::Clock::time_point now;
    broker::Moment moment = broker::Moment::now();  // for the tap; goes on where a test says so

    const wire::Limits limits;
    broker::Policy policy;

  private:
    std::map<uid_t, broker::UserAccount> accounts_;

  public:
    broker::BufferPool pool;
    std::vector<std::string> notes;  // what the router would log
    broker::Router router{
        limits,
        policy,
        pool,
        {[this](Session& session, broker::CloseCause cause, std::string_view reason) {
             close(session, cause, reason);
         },
         [this](const Session& /*session*/, std::string_view what) { notes.emplace_back(what); },
         [this](Session& manager, std::uint64_t token) { return reports.begin(manager, token); },
         [this] { return moment; }}};
    broker::Protocol protocol{limits, router, pool, "the-identity",
                              [this](Session& session, broker::CloseCause cause,
                                     std::string_view reason) { close(session, cause, reason); }};
    const broker::BrokerFacts facts{.version = "1.2.3", .process = 4711, .user = someUser};
    broker::ConnectionCounts connections;
    broker::Reports reports{router,
                            {limits, facts, connections, [] { return std::size_t{42}; },
                             [this](std::uint64_t place) { return sessionFrom(place); },
                             [this](std::uint64_t least) { return userFrom(least); }}};

  protected:
    // Returns the session that blocks the sender, or null.
    Session* blockOn(Session& sender, const std::optional<broker::Blocked>& blocked) {
        if (blocked && !sender.isClosing) {
            router.flowControl().block(sender, blocked->on, now);
        }
        if (sender.transport != nullptr) {
            sender.transport->watchInput(!sender.isBlocked());
        }
        return blocked ? &blocked->on : nullptr;
    }

    void close(Session& session, broker::CloseCause cause, std::string_view reason) {
        if (!session.isClosing) {
            session.isClosing = true;
            router.tap().closed(session, statusOf(cause), reason);
            closings_[session.id.index] =
                "status " + std::to_string(statusOf(cause)) + ": " + std::string(reason);
        }
    }

  private:
    static broker::Policy managedBySomeUser(broker::Policy policy) {
        policy.manage.listed.insert(someUser);
        return policy;
    }

    struct Place {
        std::unique_ptr<Session> session;
        std::uint32_t generation = 0;
    };

    Session& insert(uid_t user, broker::UserAccount& account) {
        std::uint32_t index = 0;
        while (index < places_.size() && places_[index].session != nullptr) {
            ++index;
        }
        if (index == places_.size()) {
            places_.emplace_back();
        }
        Place& place = places_[index];
        place.session =
            std::make_unique<Session>(SessionId{index, place.generation}, user, account, pool);
        return *place.session;
    }

    std::optional<broker::Blocked> takeBytes(Session& from, std::string_view bytes) {
        if (from.input.large) {
            wire::LargeFrame& large = from.input.largeFrame;
            std::memcpy(from.input.large->bytes() + large.receivedBytes(), bytes.data(),
                        std::min(bytes.size(), large.missingBytes()));
            bytes.remove_prefix(bytes.size() - large.add(bytes.size()));
            if (const auto blocked = protocol.takeLarge(from)) {
                protocol.keep(from, bytes.data(), bytes.size());
                return blocked;
            }
            return bytes.empty() || from.isClosing ? std::nullopt : takeBytes(from, bytes);
        }
        // In memory of just its size, so that a byte too far is noticed.
        const std::size_t before =
            from.input.backlog ? std::exchange(from.input.backlogBytes, 0) : 0;
        std::vector<char> all(before + bytes.size());
        if (before > 0) {
            std::memcpy(all.data(), from.input.backlogBegin(), before);
            from.input.takeBacklog();
        }
        std::copy(bytes.begin(), bytes.end(), all.begin() + static_cast<std::ptrdiff_t>(before));
        return protocol.take(from, all.data(), all.size());
    }

    const Session* sessionFrom(std::uint64_t place) const {
        for (; place < places_.size(); ++place) {
            if (places_[place].session != nullptr) {
                return places_[place].session.get();
            }
        }
        return nullptr;
    }
    broker::Reports::User userFrom(std::uint64_t least) const {
        const auto found = accounts_.lower_bound(static_cast<uid_t>(least));
        return found == accounts_.end() ? broker::Reports::User{}
                                        : broker::Reports::User{found->first, &found->second};
    }

    std::vector<Place> places_;
    std::map<std::uint32_t, std::string> closings_;
};

}  // namespace kavri::tests

#endif
