// The table of sessions, and the accounts of their users.
#ifndef KAVRI_BROKER_LOOP_SESSIONS_H
#define KAVRI_BROKER_LOOP_SESSIONS_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "broker/loop/listener.h"
#include "broker/management/reports.h"
#include "broker/session/session.h"

namespace kavri::broker {

class SessionTable {
  public:
    SessionTable() = default;
    SessionTable(const SessionTable&) = delete;
    SessionTable& operator=(const SessionTable&) = delete;
    ~SessionTable();

    // Those with a connection.
    std::size_t size() const { return places_.size() - freePlaces_.size() - remote_; }
    std::size_t connectionsOf(uid_t user) const;

    // The session owns the accepted descriptor. Strong guarantee.
    Session& add(const Accepted& accepted, BufferPool& pool);
    // One without a connection, of the link's pseudo user; its memory is charged to that of
    // the payer where there is one. Strong guarantee.
    Session& addRemote(Role role, Transport& transport, const Session* payer, BufferPool& pool);
    // Null when the session is gone.
    Session* find(SessionId id);
    void remove(Session& session);

    // The first session at this place of the table or behind it; null where there is none.
    // Sessions may come and go between the steps of a walk by places.
    const Session* firstFrom(std::uint64_t place) const;
    // The first account of a user with this number or a higher one.
    Reports::User firstUserFrom(std::uint64_t least) const;

    // `visit` must neither add nor remove sessions.
    template <typename Visit>
    void forEach(const Visit& visit) {
        for (const Place& place : places_) {
            if (place.session != nullptr) {
                visit(*place.session);
            }
        }
    }

  private:
    // By the index of the session's id; an index is used again with the next generation.
    struct Place {
        std::unique_ptr<Session> session;
        std::uint32_t generation = 0;
    };

    Session& insert(uid_t user, UserAccount& account, BufferPool& pool);

    std::map<uid_t, UserAccount> users_;
    std::vector<Place> places_;
    std::vector<std::uint32_t> freePlaces_;
    std::size_t remote_ = 0;
};

}  // namespace kavri::broker

#endif
