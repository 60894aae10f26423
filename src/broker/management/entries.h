// What the payload of each kind of report says: lines of `name=value`, as docs/protocol.md
// lists them.
#ifndef KAVRI_BROKER_MANAGEMENT_ENTRIES_H
#define KAVRI_BROKER_MANAGEMENT_ENTRIES_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "broker/routing/category_table.h"
#include "broker/routing/counts.h"
#include "broker/routing/flow_control.h"
#include "broker/session/session.h"
#include "wire/limits.h"
#include "wire/lines.h"

namespace kavri::broker {

// Raised when a name gets another meaning; names may be added at any time.
inline constexpr unsigned reportFormat = 1;

// Of a category's name; a report is never longer than a page of memory for it.
inline constexpr std::size_t longestReportedName = 256;

// What does not change while a broker runs.
struct BrokerFacts {
    std::string version;
    pid_t process = 0;
    uid_t user = 0;
    Clock::time_point started = Clock::now();
};

void describeBroker(Lines& lines, const BrokerFacts& facts, Clock::time_point now);
void describeLimits(Lines& lines, const wire::Limits& limits);
void describeConnections(Lines& lines, const ConnectionCounts& counts, std::size_t present);
void describeTraffic(Lines& lines, const TrafficCounts& counts);
void describeUser(Lines& lines, uid_t user, const UserAccount& account);
void describeConnection(Lines& lines, const Session& session, const FlowControl& flow,
                        Clock::time_point now);
// Of a session whose program is on another machine.
void describeRemote(Lines& lines, const Session& session, const FlowControl& flow,
                    Clock::time_point now);
void describeCategory(Lines& lines, const Category& category);

}  // namespace kavri::broker

#endif
