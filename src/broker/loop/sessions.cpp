// The table of sessions; see sessions.h.
#include "broker/loop/sessions.h"

#include <unistd.h>

#include "base/assert.h"

namespace kavri::broker {

SessionTable::~SessionTable() {
    forEach([](const Session& session) { ::close(session.descriptor); });
}

std::size_t SessionTable::connectionsOf(uid_t user) const {
    const auto known = users_.find(user);
    return known == users_.end() ? 0 : known->second.connections;
}

Session& SessionTable::add(const Accepted& accepted, BufferPool& pool) {
    if (freePlaces_.empty()) {
        freePlaces_.push_back(static_cast<std::uint32_t>(places_.size()));
        places_.emplace_back();
    }
    const std::uint32_t index = freePlaces_.back();
    Place& place = places_[index];
    UserAccount& account = users_[accepted.user];
    place.session =
        std::make_unique<Session>(SessionId{index, place.generation}, accepted.user, account, pool);
    Session& session = *place.session;
    freePlaces_.pop_back();
    session.process = accepted.process;
    session.descriptor = accepted.descriptor;
    ++account.connections;
    return session;
}

Session* SessionTable::find(SessionId id) {
    if (id.index >= places_.size() || places_[id.index].generation != id.generation) {
        return nullptr;
    }
    return places_[id.index].session.get();
}

void SessionTable::remove(Session& session) {
    ::close(session.descriptor);
    --session.account.connections;
    Place& place = places_[session.id.index];
    KAVRI_ASSERT(place.session.get() == &session, "a session is removed once, from its own place");
    ++place.generation;
    freePlaces_.push_back(session.id.index);
    place.session = nullptr;
}

}  // namespace kavri::broker
