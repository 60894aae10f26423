// What a broker says it is doing: the reports of one query, as values.
//
// Texts of others, which may hold any byte, are made fit to be shown here, once.
#ifndef KAVRI_MANAGEMENT_SNAPSHOT_H
#define KAVRI_MANAGEMENT_SNAPSHOT_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "management/connection.h"

namespace kavri::management {

// By their names, in the broker's order. A broker may have more of them than are known here.
class Figures {
  public:
    void add(std::string_view name, std::uint64_t value) { all_.emplace_back(name, value); }
    // 0 where there is none.
    std::uint64_t operator[](std::string_view name) const;
    const std::vector<std::pair<std::string, std::uint64_t>>& all() const { return all_; }

  private:
    std::vector<std::pair<std::string, std::uint64_t>> all_;
};

struct BrokerEntry {
    std::string identity;
    std::string version;
    pid_t process = 0;
    uid_t user = 0;
    std::uint64_t uptimeMs = 0;
};

struct UserEntry {
    uid_t user = 0;
    std::uint64_t connections = 0;
    std::uint64_t bytes = 0;
};

struct ConnectionEntry {
    std::uint64_t number = 0;
    uid_t user = 0;
    pid_t process = 0;
    std::string role;
    std::optional<std::string> category{};  // that it serves
    std::uint64_t ageMs = 0;
    std::uint64_t subscriptions = 0;
    std::uint64_t pendingRequests = 0;
    std::uint64_t requestsInFlight = 0;
    std::uint64_t queuedBytes = 0;
    std::uint64_t inputBytes = 0;
    bool isCongested = false;
    bool isStalled = false;
    std::optional<std::uint64_t> waitsFor{};
};

// The link to other brokers.
struct LinkEntry {
    bool isConnected = false;
    std::string server;  // or, where it is not connected, why
    Figures figures;
};

// What crosses the link for one program, or of the events of one category.
struct RemoteEntry {
    std::uint64_t number = 0;
    std::string way;
    std::optional<std::string> category{};
    std::string broker{};  // at the other end; empty where there may be several
    std::string brokerName{};
    std::optional<std::uint64_t> roundTripUs{};
    std::uint64_t ageMs = 0;
    std::uint64_t pendingRequests = 0;
    std::uint64_t requestsInFlight = 0;
    std::uint64_t queuedBytes = 0;
    std::uint64_t inputBytes = 0;
    bool isCongested = false;
    bool isStalled = false;
    std::optional<std::uint64_t> waitsFor{};
};

struct CategoryEntry {
    std::string name;
    std::uint64_t nameBytes = 0;  // of the whole name, of which `name` may be the beginning
    std::string servedBy;
    std::optional<std::uint64_t> connection{};
    std::uint64_t subscribers = 0;
    std::uint64_t requestsInFlight = 0;
};

struct Snapshot {
    BrokerEntry broker;
    Figures limits;
    Figures connectionCounts;
    Figures traffic;
    std::optional<LinkEntry> link;
    std::vector<UserEntry> users;
    std::vector<ConnectionEntry> connections;
    std::vector<RemoteEntry> remote;
    std::vector<CategoryEntry> categories;
};

// Asks, and takes the reports until the last. Throws Failure.
Snapshot takeSnapshot(Connection& connection, Clock::time_point deadline);

}  // namespace kavri::management

#endif
