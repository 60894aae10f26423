// The table of sessions; see sessions.h.
#include "broker/loop/sessions.h"

#include <unistd.h>

#include <algorithm>
#include <limits>

#include "base/assert.h"

namespace kavri::broker {

SessionTable::~SessionTable() {
    forEach([](const Session& session) {
        if (session.descriptor >= 0) {
            ::close(session.descriptor);
        }
    });
}

std::size_t SessionTable::connectionsOf(uid_t user) const {
    const auto known = users_.find(user);
    return known == users_.end() ? 0 : known->second.connections;
}

Session& SessionTable::add(const Accepted& accepted, BufferPool& pool) {
    Session& session = insert(accepted.user, users_[accepted.user], pool);
    session.process = accepted.process;
    session.descriptor = accepted.descriptor;
    ++session.account.connections;
    return session;
}

Session& SessionTable::addRemote(Role role, Transport& transport, const Session* payer,
                                 BufferPool& pool) {
    Session& session = insert(linkUser, payer == nullptr ? users_[linkUser] : payer->account, pool);
    session.role = role;
    session.transport = &transport;
    ++remote_;
    return session;
}

Session& SessionTable::insert(uid_t user, UserAccount& account, BufferPool& pool) {
    if (freePlaces_.empty()) {
        freePlaces_.push_back(static_cast<std::uint32_t>(places_.size()));
        places_.emplace_back();
    }
    const std::uint32_t index = freePlaces_.back();
    Place& place = places_[index];
    place.session =
        std::make_unique<Session>(SessionId{index, place.generation}, user, account, pool);
    freePlaces_.pop_back();
    return *place.session;
}

Session* SessionTable::find(SessionId id) {
    if (id.index >= places_.size() || places_[id.index].generation != id.generation) {
        return nullptr;
    }
    return places_[id.index].session.get();
}

const Session* SessionTable::firstFrom(std::uint64_t place) const {
    const auto isTaken = [](const Place& at) { return at.session != nullptr; };
    const auto begin = places_.begin() +
                       static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(place, places_.size()));
    const auto found = std::find_if(begin, places_.end(), isTaken);
    return found == places_.end() ? nullptr : found->session.get();
}

Reports::User SessionTable::firstUserFrom(std::uint64_t least) const {
    const auto found = least > std::numeric_limits<uid_t>::max()
                           ? users_.end()
                           : users_.lower_bound(static_cast<uid_t>(least));
    return found == users_.end() ? Reports::User{} : Reports::User{found->first, &found->second};
}

void SessionTable::remove(Session& session) {
    if (session.descriptor >= 0) {
        ::close(session.descriptor);
        --session.account.connections;
    } else {
        --remote_;
    }
    Place& place = places_[session.id.index];
    KAVRI_ASSERT(place.session.get() == &session, "a session is removed once, from its own place");
    ++place.generation;
    freePlaces_.push_back(session.id.index);
    place.session = nullptr;
}

}  // namespace kavri::broker
