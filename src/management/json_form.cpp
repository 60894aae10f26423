// The JSON form; see json_form.h.
#include "management/json_form.h"

#include "base/printable.h"

namespace kavri::management {

namespace {

using Json = nlohmann::ordered_json;

constexpr unsigned schema = 1;

template <typename Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json();
}

Json figuresJson(const Figures& figures) {
    Json json = Json::object();
    for (const auto& [name, value] : figures.all()) {
        json[name] = value;
    }
    return json;
}

Json brokerJson(const BrokerEntry& broker, const std::string& socket, Names& names) {
    return {{"socket", base::printable(socket)},
            {"identity", broker.identity},
            {"version", broker.version},
            {"process", broker.process},
            {"user", broker.user},
            {"user_name", orNull(names.ofUser(broker.user))},
            {"uptime_ms", broker.uptimeMs}};
}

Json userJson(const UserEntry& user, std::uint64_t share, Names& names) {
    return {{"user", user.user},
            {"user_name", orNull(names.ofUser(user.user))},
            {"connections", user.connections},
            {"bytes", user.bytes},
            {"share_bytes", share}};
}

Json connectionJson(const ConnectionEntry& entry, Names& names) {
    return {{"connection", entry.number},
            {"user", entry.user},
            {"user_name", orNull(names.ofUser(entry.user))},
            {"process", entry.process},
            {"command", orNull(names.ofProcess(entry.process))},
            {"role", entry.role},
            {"category", orNull(entry.category)},
            {"age_ms", entry.ageMs},
            {"subscriptions", entry.subscriptions},
            {"pending_requests", entry.pendingRequests},
            {"requests_in_flight", entry.requestsInFlight},
            {"queued_bytes", entry.queuedBytes},
            {"input_bytes", entry.inputBytes},
            {"congested", entry.isCongested},
            {"stalled", entry.isStalled},
            {"waits_for", orNull(entry.waitsFor)}};
}

// What the link counts, and the server that it is connected to, or why to none.
Json linkJson(const LinkEntry& link) {
    Json json = {{"server", link.isConnected ? Json(link.server) : Json()},
                 {"failure", link.isConnected ? Json() : Json(link.server)}};
    json.update(figuresJson(link.figures));
    json["connected"] = link.isConnected;
    return json;
}

Json remoteJson(const RemoteEntry& entry) {
    const auto orNone = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
    return {{"connection", entry.number},
            {"way", entry.way},
            {"category", orNull(entry.category)},
            {"broker", orNone(entry.broker)},
            {"broker_name", orNone(entry.brokerName)},
            {"round_trip_us", orNull(entry.roundTripUs)},
            {"age_ms", entry.ageMs},
            {"pending_requests", entry.pendingRequests},
            {"requests_in_flight", entry.requestsInFlight},
            {"queued_bytes", entry.queuedBytes},
            {"input_bytes", entry.inputBytes},
            {"congested", entry.isCongested},
            {"stalled", entry.isStalled},
            {"waits_for", orNull(entry.waitsFor)}};
}

Json categoryJson(const CategoryEntry& entry) {
    return {{"name", entry.name},
            {"name_bytes", entry.nameBytes},
            {"served_by", entry.servedBy},
            {"connection", orNull(entry.connection)},
            {"subscribers", entry.subscribers},
            {"requests_in_flight", entry.requestsInFlight}};
}

}  // namespace

Json jsonForm(const Snapshot& snapshot, const std::string& socket, const std::string& time,
              Names& names) {
    Json users = Json::array();
    for (const UserEntry& user : snapshot.users) {
        users.push_back(userJson(user, snapshot.limits["bytes_per_user"], names));
    }
    Json connections = Json::array();
    for (const ConnectionEntry& entry : snapshot.connections) {
        connections.push_back(connectionJson(entry, names));
    }
    Json categories = Json::array();
    for (const CategoryEntry& entry : snapshot.categories) {
        categories.push_back(categoryJson(entry));
    }
    Json remote = Json::array();
    for (const RemoteEntry& entry : snapshot.remote) {
        remote.push_back(remoteJson(entry));
    }
    return {{"schema", schema},
            {"time", time},
            {"broker", brokerJson(snapshot.broker, socket, names)},
            {"limits", figuresJson(snapshot.limits)},
            {"counts",
             {{"connections", figuresJson(snapshot.connectionCounts)},
              {"traffic", figuresJson(snapshot.traffic)}}},
            {"link", snapshot.link ? linkJson(*snapshot.link) : Json()},
            {"users", std::move(users)},
            {"categories", std::move(categories)},
            {"connections", std::move(connections)},
            {"remote", std::move(remote)}};
}

}  // namespace kavri::management
