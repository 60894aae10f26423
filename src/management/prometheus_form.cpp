// The Prometheus form; see prometheus_form.h.
#include "management/prometheus_form.h"

#include <array>
#include <map>

#include "base/text_scanner.h"

namespace kavri::management {

namespace {

// A value of a label, as the format escapes it.
std::string quoted(std::string_view value) {
    std::string result = "\"";
    for (const char byte : value) {
        if (byte == '\\' || byte == '"') {
            result += '\\';
        }
        result += byte;
    }
    return result + '"';
}

// One metric: its samples by the value of their label, of which each is there once. Samples
// that come to the same label, as names that were cut may, are added up.
class Metric {
  public:
    Metric(std::string name, std::string type, std::string help, std::string label = {})
        : name_("kavri_" + std::move(name)),
          type_(std::move(type)),
          help_(std::move(help)),
          label_(std::move(label)) {}

    Metric& add(const std::string& labelValue, std::uint64_t value) {
        samples_[labelValue] += value;
        return *this;
    }
    Metric& add(std::uint64_t value) { return add("", value); }

    // Without samples there is nothing to say.
    void print(std::string& text) const {
        if (samples_.empty()) {
            return;
        }
        text += "# HELP " + name_ + " " + help_ + "\n# TYPE " + name_ + " " + type_ + "\n";
        for (const auto& [labelValue, value] : samples_) {
            text += name_;
            if (!label_.empty()) {
                text += "{" + label_ + "=" + quoted(labelValue) + "}";
            }
            text += " " + std::to_string(value) + "\n";
        }
    }

  private:
    std::string name_;
    std::string type_;
    std::string help_;
    std::string label_;
    std::map<std::string, std::uint64_t> samples_;
};

Metric counter(std::string name, std::string help, std::string label = {}) {
    return {std::move(name), "counter", std::move(help), std::move(label)};
}
Metric gauge(std::string name, std::string help, std::string label = {}) {
    return {std::move(name), "gauge", std::move(help), std::move(label)};
}

// All figures whose names begin so, by the rest of their names.
Metric& addEach(Metric& metric, const Figures& figures, std::string_view prefix) {
    for (const auto& [name, value] : figures.all()) {
        std::string_view rest = name;
        if (base::takePrefix(rest, prefix)) {
            metric.add(std::string(rest), value);
        }
    }
    return metric;
}

void printBroker(const BrokerEntry& broker, std::string& text) {
    text +=
        "# HELP kavri_broker_info The broker: its version, and its identity since its start.\n"
        "# TYPE kavri_broker_info gauge\nkavri_broker_info{version=" +
        quoted(broker.version) + ",identity=" + quoted(broker.identity) + "} 1\n";
    gauge("uptime_seconds", "Since the start of the broker.")
        .add(broker.uptimeMs / 1000)
        .print(text);
}

void printCounts(const Snapshot& snapshot, std::string& text) {
    struct Count {
        const char* figure;
        const char* help;
    };
    static constexpr std::array counts = {
        Count{"requests", "Requests delivered to a responder."},
        Count{"responses", "Responses delivered to an initiator."},
        Count{"completions", "Requests that were completed without a response."},
        Count{"events_published", "Events, each counted once."},
        Count{"events_delivered", "Events, each counted for each subscriber."},
    };
    for (const auto& [figure, help] : counts) {
        counter(std::string(figure) + "_total", help).add(snapshot.traffic[figure]).print(text);
    }
    Metric notices = counter("notices_total", "Requests without an answer, by reason.", "reason");
    addEach(notices, snapshot.traffic, "notices_").print(text);
    Metric dropped = counter("dropped_total", "Frames of responders that were dropped.", "kind");
    addEach(dropped, snapshot.traffic, "dropped_").print(text);
    const Figures& ended = snapshot.connectionCounts;
    counter("connections_accepted_total", "Connections accepted.")
        .add(ended["accepted"])
        .print(text);
    Metric refused = counter("connections_refused_total", "Connections not accepted.", "reason");
    addEach(refused, ended, "refused_").print(text);
    Metric closed = counter("connections_closed_total", "Connections closed, by reason.", "reason");
    addEach(closed, ended, "closed_").print(text);
}

void printConnections(const Snapshot& snapshot, std::string& text) {
    Metric byRole = gauge("connections", "Connections now.", "role");
    for (const char* role : {"initiator", "responder", "manager", "none"}) {
        byRole.add(role, 0);
    }
    Metric state = gauge("connections_behind", "Connections that are behind, by state.", "state");
    state.add("congested", 0).add("stalled", 0).add("waiting", 0);
    Metric queued = gauge("queued_bytes", "In all send queues.");
    Metric pending = gauge("pending_requests", "Requests that wait for their answers.");
    queued.add(0);
    pending.add(0);
    for (const ConnectionEntry& entry : snapshot.connections) {
        byRole.add(entry.role, 1);
        state.add("congested", entry.isCongested ? 1 : 0);
        state.add("stalled", entry.isStalled ? 1 : 0);
        state.add("waiting", entry.waitsFor ? 1 : 0);
        queued.add(entry.queuedBytes);
        pending.add(entry.pendingRequests);
    }
    for (const Metric& metric : {byRole, state, queued, pending}) {
        metric.print(text);
    }
}

void printLink(const Snapshot& snapshot, std::string& text) {
    if (!snapshot.link) {
        return;
    }
    const Figures& figures = snapshot.link->figures;
    gauge("link_up", "Whether the link is connected to a server.")
        .add(snapshot.link->isConnected ? 1 : 0)
        .print(text);
    counter("link_connections_total", "How often the link was connected.")
        .add(figures["connections"])
        .print(text);
    gauge("link_queued_bytes", "Published, and not taken by the kernel yet.")
        .add(figures["queued_bytes"])
        .print(text);
    std::map<std::string, std::uint64_t> roundTrips;
    Metric channels = gauge("link_channels", "Channels to and from a broker.", "broker");
    for (const RemoteEntry& entry : snapshot.remote) {
        if (!entry.broker.empty()) {
            const std::string& name = entry.brokerName.empty() ? entry.broker : entry.brokerName;
            channels.add(name, 1);
            roundTrips[name] = entry.roundTripUs.value_or(0);
        }
    }
    channels.print(text);
    Metric roundTrip =
        gauge("link_round_trip_microseconds", "Last measured, to a broker.", "broker");
    for (const auto& [name, microseconds] : roundTrips) {
        roundTrip.add(name, microseconds);
    }
    roundTrip.print(text);
}

void printUsers(const Snapshot& snapshot, Names& names, std::string& text) {
    Metric connections = gauge("user_connections", "Connections of a user.", "user");
    Metric bytes = gauge("user_bytes", "What is held for a user.", "user");
    for (const UserEntry& user : snapshot.users) {
        connections.add(names.user(user.user), user.connections);
        bytes.add(names.user(user.user), user.bytes);
    }
    connections.print(text);
    bytes.print(text);
}

void printCategories(const Snapshot& snapshot, std::string& text) {
    Metric categories = gauge("categories", "Categories, by who serves them.", "served_by");
    Metric inFlight = gauge("category_requests_in_flight",
                            "Requests at the responder of a category.", "category");
    Metric subscribers =
        gauge("category_subscribers", "Subscribers of a category that is served.", "category");
    for (const char* served : {"responder", "broker", "nobody"}) {
        categories.add(served, 0);
    }
    for (const CategoryEntry& category : snapshot.categories) {
        categories.add(category.servedBy, 1);
        if (category.servedBy != "nobody") {
            inFlight.add(category.name, category.requestsInFlight);
            subscribers.add(category.name, category.subscribers);
        }
    }
    for (const Metric& metric : {categories, inFlight, subscribers}) {
        metric.print(text);
    }
}

}  // namespace

std::string prometheusForm(const Snapshot& snapshot, Names& names) {
    std::string text;
    printBroker(snapshot.broker, text);
    Metric limits = gauge("limit", "A limit in force, by its name in the configuration.", "name");
    addEach(limits, snapshot.limits, "").print(text);
    printCounts(snapshot, text);
    printConnections(snapshot, text);
    printLink(snapshot, text);
    printUsers(snapshot, names, text);
    printCategories(snapshot, text);
    return text;
}

}  // namespace kavri::management
