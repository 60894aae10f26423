// Answers the queries of managers: to each a row of reports, and then an acknowledgement.
//
// A round writes a bounded number of reports, to managers in turn, and none to a manager whose
// send queue holds unread reports. So a report of thousands of connections delays no other
// peer, and a manager that does not read delays only its own report. Between rounds sessions come
// and go: the walk goes by their places in the table, and shows each that is there when it gets to
// it.
//
// A category is shown with its responder's connection, or where nobody serves it, with that
// of its first subscriber: so no list of them has to stand still.
#ifndef KAVRI_BROKER_MANAGEMENT_REPORTS_H
#define KAVRI_BROKER_MANAGEMENT_REPORTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string_view>
#include <utility>

#include "broker/management/entries.h"
#include "broker/routing/router.h"
#include "broker/session/session.h"

namespace kavri::broker {

class Reports {
  public:
    // How much a round does: a report, or a subscription looked at, is a step.
    static constexpr std::size_t stepsPerRound = 16;
    // A manager with more than this in the send queue is not written to.
    static constexpr std::size_t mostQueuedBytes = 32 * wire::kibibyte;

    struct User {
        uid_t user = 0;
        const UserAccount* account = nullptr;
    };
    // All of these outlive this.
    struct Surroundings {
        const wire::Limits& limits;
        const BrokerFacts& facts;
        const ConnectionCounts& connections;
        std::function<std::size_t()> present;
        // The first session at this place in the table or behind it.
        std::function<const Session*(std::uint64_t place)> sessionFrom;
        // The first user with an account of at least this number.
        std::function<User(std::uint64_t least)> userFrom;
    };

    Reports(Router& router, Surroundings surroundings)
        : router_(router), surroundings_(std::move(surroundings)) {}

    // False where an earlier query of the manager is still being answered.
    bool begin(Session& manager, std::uint64_t token);
    // For a session that is removed.
    void forget(const Session& session);

    // Whether somebody is to be written to now.
    bool hasWork() const { return !reports_.empty() && somebodyMayGoOn(); }
    // Does a round's steps. Without a query, as in nearly all rounds, nothing.
    void advance() {
        if (!reports_.empty()) {
            advanceSome();
        }
    }

  private:
    enum class Stage {
        broker,
        limits,
        connections,
        traffic,
        link,
        users,
        embedded,
        sessions,
        done
    };

    // How far the answer to a query has got.
    struct Report {
        Session* manager;
        std::uint64_t token;
        Stage stage = Stage::broker;
        std::uint64_t next = 0;  // number of the stage's entry that comes next
        SessionId shown{UINT32_MAX, 0};
        std::size_t subscription = 0;  // of the session shown last: which is looked at next
    };

    static bool mayGoOn(const Report& report);
    bool somebodyMayGoOn() const;
    void advanceSome();
    void step(Report& report);
    static void enter(Report& report, Stage stage);
    void stepLink(Report& report);
    void stepEmbedded(Report& report);
    void stepUsers(Report& report);
    void stepSessions(Report& report);
    void stepSubscriptions(Report& report, const Session& session);
    void showSession(const Report& report, const Session& session);
    void showCategory(const Report& report, const Category& category);
    template <typename Describe>
    void show(const Report& report, std::string_view kind, const Describe& describe);

    Router& router_;
    const Surroundings surroundings_;
    std::list<Report> reports_;
    Lines lines_{4096};  // of a report; used again for the next
};

}  // namespace kavri::broker

#endif
