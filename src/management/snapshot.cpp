// The reports of a query; see snapshot.h. What they say is in docs/protocol.md.
#include "management/snapshot.h"

#include <algorithm>
#include <charconv>
#include <concepts>
#include <unordered_map>

#include "base/printable.h"
#include "base/text_scanner.h"
#include "wire/limits.h"

namespace kavri::management {

using wire::Field;
using wire::Frame;
using wire::FrameType;

namespace {

constexpr std::uint64_t knownFormat = 1;
constexpr std::uint64_t queryToken = 1;
// More than any report has: a broker that sends more never ends it.
constexpr std::size_t mostReportBytes = 512 * wire::mebibyte;

// A category's name. A backslash is doubled, so that two names are never shown alike.
std::string shownName(std::string_view name) {
    std::string doubled;
    for (const char byte : name) {
        doubled.append(byte == '\\' ? 2 : 1, byte);
    }
    return base::printable(doubled);
}

bool isWord(std::string_view text) {
    return !text.empty() && text.size() < 100 && std::ranges::all_of(text, [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
               (byte >= '0' && byte <= '9') || byte == '.' || byte == '_' || byte == '-';
    });
}

// The lines of a payload. What is no number where one is due is nonsense.
class Values {
  public:
    Values(std::string_view payload, const Connection& connection) : connection_(connection) {
        while (const auto line = base::takeLine(payload)) {
            std::string_view value = *line;
            const auto name = base::takeUntil(value, "=");
            if (!name || !isWord(*name) || !isWord(value)) {
                connection_.failAsNonsense();
            }
            values_.emplace_back(*name, value);
        }
    }

    std::string word(std::string_view name) const {
        const std::string_view* const value = find(name);
        return value == nullptr ? "" : std::string(*value);
    }
    template <std::integral Number>
    std::optional<Number> number(std::string_view name) const {
        const std::string_view* const value = find(name);
        return value == nullptr ? std::nullopt : std::optional(parsed<Number>(*value));
    }
    template <std::integral Number>
    void take(std::string_view name, Number& number) const {
        number = this->number<Number>(name).value_or(number);
    }
    bool flag(std::string_view name) const { return number<unsigned>(name).value_or(0) != 0; }

    Figures figures() const {
        Figures figures;
        for (const auto& [name, value] : values_) {
            figures.add(name, parsed<std::uint64_t>(value));
        }
        return figures;
    }

  private:
    const std::string_view* find(std::string_view name) const {
        const auto found =
            std::ranges::find(values_, name, [](const auto& each) { return each.first; });
        return found == values_.end() ? nullptr : &found->second;
    }
    template <std::integral Number>
    Number parsed(std::string_view value) const {
        Number number{};
        const char* const end = value.data() + value.size();
        const auto [parsedTo, error] = std::from_chars(value.data(), end, number);
        if (error != std::errc() || parsedTo != end) {
            connection_.failAsNonsense();
        }
        return number;
    }

    const Connection& connection_;
    std::vector<std::pair<std::string_view, std::string_view>> values_;
};

class Reader {
  public:
    explicit Reader(Connection& connection) : connection_(connection) {
        snapshot_.broker.identity = base::printable(connection.identity());
    }

    void take(const Frame& report) {
        const std::string_view kind = report[Field::identifier];
        const Values values(report[Field::payload], connection_);
        if (kind == "broker") {
            takeBroker(values);
        } else if (kind == "limits") {
            snapshot_.limits = values.figures();
        } else if (kind == "connections") {
            snapshot_.connectionCounts = values.figures();
        } else if (kind == "traffic") {
            snapshot_.traffic = values.figures();
        } else if (kind == "link") {
            takeLink(values, report[Field::category]);
        } else if (kind == "user") {
            takeUser(values);
        } else if (kind == "connection") {
            takeConnection(values, report);
        } else if (kind == "remote") {
            takeRemote(values, report);
        } else if (kind == "category") {
            takeCategory(values, report[Field::category]);
        }
    }

    Snapshot end() {
        if (snapshot_.broker.version.empty()) {
            connection_.failAsNonsense();
        }
        return std::move(snapshot_);
    }

  private:
    void takeBroker(const Values& values) {
        if (values.number<std::uint64_t>("format") != knownFormat) {
            throw Failure(FailureKind::refused,
                          "broker at " + base::printable(connection_.path()) +
                              ": it reports in a form that this version does not know: install "
                              "the same version of both");
        }
        BrokerEntry& broker = snapshot_.broker;
        broker.version = values.word("version");
        values.take("process", broker.process);
        values.take("user", broker.user);
        values.take("uptime_ms", broker.uptimeMs);
    }

    void takeUser(const Values& values) {
        UserEntry& user = snapshot_.users.emplace_back();
        values.take("user", user.user);
        values.take("connections", user.connections);
        values.take("bytes", user.bytes);
    }

    void takeConnection(const Values& values, const Frame& report) {
        ConnectionEntry& entry = snapshot_.connections.emplace_back();
        values.take("connection", entry.number);
        values.take("user", entry.user);
        values.take("process", entry.process);
        entry.role = values.word("role");
        if (report.has(Field::category)) {
            entry.category = shownName(report[Field::category]);
        }
        values.take("subscriptions", entry.subscriptions);
        takeState(values, entry);
    }

    void takeRemote(const Values& values, const Frame& report) {
        RemoteEntry& entry = snapshot_.remote.emplace_back();
        values.take("connection", entry.number);
        entry.way = values.word("way");
        if (report.has(Field::category)) {
            entry.category = shownName(report[Field::category]);
        }
        entry.broker = values.word("broker");
        entry.brokerName = values.word("broker_name");
        entry.roundTripUs = values.number<std::uint64_t>("round_trip_us");
        takeState(values, entry);
    }

    template <typename Entry>
    static void takeState(const Values& values, Entry& entry) {
        values.take("age_ms", entry.ageMs);
        values.take("pending_requests", entry.pendingRequests);
        values.take("requests_in_flight", entry.requestsInFlight);
        values.take("queued_bytes", entry.queuedBytes);
        values.take("input_bytes", entry.inputBytes);
        entry.isCongested = values.flag("congested");
        entry.isStalled = values.flag("stalled");
        entry.waitsFor = values.number<std::uint64_t>("waits_for");
    }

    void takeLink(const Values& values, std::string_view server) {
        LinkEntry& link = snapshot_.link.emplace();
        link.figures = values.figures();
        link.isConnected = values.flag("connected");
        link.server = base::printable(server);
    }

    // One that is there twice changed its responder meanwhile; the later report is right.
    void takeCategory(const Values& values, std::string_view name) {
        const auto nameBytes = values.number<std::uint64_t>("name_bytes").value_or(name.size());
        const auto [known, isNew] = places_.try_emplace(
            std::to_string(nameBytes) + " " + std::string(name), snapshot_.categories.size());
        if (isNew) {
            snapshot_.categories.emplace_back();
        }
        CategoryEntry& entry = snapshot_.categories[known->second];
        entry = {.name = shownName(name),
                 .nameBytes = nameBytes,
                 .servedBy = values.word("served_by"),
                 .connection = values.number<std::uint64_t>("connection")};
        values.take("subscribers", entry.subscribers);
        values.take("requests_in_flight", entry.requestsInFlight);
    }

    const Connection& connection_;
    Snapshot snapshot_;
    std::unordered_map<std::string, std::size_t> places_;  // of the categories
};

}  // namespace

std::uint64_t Figures::operator[](std::string_view name) const {
    const auto found = std::ranges::find(all_, name, [](const auto& each) { return each.first; });
    return found == all_.end() ? 0 : found->second;
}

Snapshot takeSnapshot(Connection& connection, Clock::time_point deadline) {
    Frame query;
    query.type = FrameType::query;
    query.token = queryToken;
    connection.send(query);
    Reader reader(connection);
    for (std::size_t bytes = 0; bytes < mostReportBytes;) {
        const Frame frame = connection.receive(deadline);
        if (frame.token == queryToken && frame.type == FrameType::report) {
            reader.take(frame);
        } else if (frame.token == queryToken && frame.type == FrameType::acknowledgement &&
                   frame.status == KAVRI_CORE_STATUS_NO_ERROR) {
            return reader.end();
        } else {
            connection.failAsNonsense();
        }
        bytes += wire::encodedBytes(frame);
    }
    connection.failAsNonsense();
}

}  // namespace kavri::management
