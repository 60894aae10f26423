// The form for people; see text_form.h.
#include "management/text_form.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>

#include "base/printable.h"
#include "base/text_scanner.h"
#include "management/table.h"

namespace kavri::management {

namespace {

constexpr std::size_t mostRows = 20;

std::string bytesText(std::uint64_t bytes) {
    constexpr std::array units = {"B", "KiB", "MiB", "GiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.{}f} {}", value, unit == 0 ? 0 : 1, units[unit]);
}

std::string timeText(std::uint64_t milliseconds) {
    const std::uint64_t seconds = milliseconds / 1000;
    const std::uint64_t days = seconds / 86400;
    const std::string clock =
        fmt::format("{:02}:{:02}:{:02}", seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
    return days == 0 ? clock : fmt::format("{} d {}", days, clock);
}

// "no_responder" as it is read.
std::string words(std::string_view name) {
    std::string text(name);
    std::ranges::replace(text, '_', ' ');
    return text;
}

class Form {
  public:
    Form(const Snapshot& snapshot, const Snapshot* earlier, const TextFormOptions& options,
         Names& names)
        : now_(snapshot), earlier_(earlier), options_(options), names_(names) {
        for (const ConnectionEntry& entry : now_.connections) {
            processes_.emplace(entry.number, entry.process);
        }
        for (const RemoteEntry& entry : now_.remote) {
            remote_.insert(entry.number);
        }
    }

    std::string text() {
        addHead();
        addLink();
        addCounts();
        addTraffic();
        addUsers();
        addCategories();
        addConnections();
        addRemote();
        return std::move(text_);
    }

  private:
    void addLine(const std::string& line) { text_ += base::fitted(line + "\n", options_.style); }

    void addHead() {
        const BrokerEntry& broker = now_.broker;
        addLine(fmt::format("kavri-broker {}  process {} of {}  up {}  {}", broker.version,
                            broker.process, names_.user(broker.user), timeText(broker.uptimeMs),
                            base::printable(options_.socket)));
    }

    void addLink() {
        if (!now_.link) {
            return;
        }
        const Figures& figures = now_.link->figures;
        addLine(now_.link->isConnected
                    ? fmt::format("link: by {}  reconnected {} times  brokers {}  queued {}",
                                  now_.link->server,
                                  figures["connections"] -
                                      std::min<std::uint64_t>(figures["connections"], 1),
                                  figures["brokers"], bytesText(figures["queued_bytes"]))
                    : "link: down: " + now_.link->server);
    }

    // Those of the figures that begin so and are not 0: "closed:  by peer 12  malformed 1".
    void addNonZero(std::string line, const Figures& figures, std::string_view prefix) {
        bool isEmpty = true;
        for (const auto& [name, value] : figures.all()) {
            std::string_view rest = name;
            if (value > 0 && base::takePrefix(rest, prefix)) {
                line += fmt::format("  {} {}", words(rest), value);
                isEmpty = false;
            }
        }
        if (!isEmpty) {
            addLine(line);
        }
    }

    void addCounts() {
        const Figures& counts = now_.connectionCounts;
        addLine(fmt::format("\nconnections:  now {} of {}  at most {}  since the start {}",
                            counts["present"], now_.limits["connections"], counts["most"],
                            counts["accepted"]));
        addNonZero("  refused:", counts, "refused_");
        addNonZero("  closed:", counts, "closed_");
    }

    std::string perSecond(std::string_view name) const {
        const std::uint64_t before = earlier_->traffic[name];
        const std::uint64_t milliseconds =
            now_.broker.uptimeMs - std::min(earlier_->broker.uptimeMs, now_.broker.uptimeMs);
        const std::uint64_t more = now_.traffic[name] - std::min(before, now_.traffic[name]);
        return milliseconds == 0 ? ""
                                 : fmt::format("{:.1f}", 1000.0 * static_cast<double>(more) /
                                                             static_cast<double>(milliseconds));
    }

    // Counts of failures are shown only where they are not zero.
    void addTraffic() {
        std::vector<Column> columns = {{"TRAFFIC"}, {"SINCE THE START", true}};
        if (earlier_ != nullptr) {
            columns.push_back({"PER SECOND", true});
        }
        Table table(std::move(columns));
        for (const auto& [name, value] : now_.traffic.all()) {
            const bool isTrouble = name.starts_with("notices_") || name.starts_with("dropped_");
            if (isTrouble && value == 0) {
                continue;
            }
            std::vector<std::string> row = {words(name), std::to_string(value)};
            if (earlier_ != nullptr) {
                row.push_back(perSecond(name));
            }
            table.add(std::move(row));
        }
        addTable(table, 0);
    }

    // Of so many, as many as are shown.
    std::size_t shownOf(std::size_t count) const {
        return options_.all ? count : std::min(count, mostRows);
    }
    void addTable(const Table& table, std::size_t more) {
        if (table.isEmpty()) {
            return;
        }
        text_ += "\n" + table.text(options_.style);
        if (more > 0) {
            addLine(fmt::format("and {} more: show them with --all", more));
        }
    }

    template <typename Entry, typename Before>
    std::vector<const Entry*> first(const std::vector<Entry>& entries, const Before& before) const {
        std::vector<const Entry*> sorted;
        sorted.reserve(entries.size());
        for (const Entry& entry : entries) {
            sorted.push_back(&entry);
        }
        std::ranges::stable_sort(sorted, [&before](const Entry* one, const Entry* other) {
            return before(*one, *other);
        });
        sorted.resize(shownOf(sorted.size()));
        return sorted;
    }

    void addUsers() {
        Table table({{"USER", false, 8}, {"CONNECTIONS", true}, {"HELD", true}, {"OF", true}});
        const auto shown = first(now_.users, [](const UserEntry& one, const UserEntry& other) {
            return one.bytes > other.bytes;
        });
        for (const UserEntry* user : shown) {
            table.add({names_.user(user->user), std::to_string(user->connections),
                       bytesText(user->bytes), bytesText(now_.limits["bytes_per_user"])});
        }
        addTable(table, now_.users.size() - shown.size());
    }

    // The process behind a connection; 0 where that has closed meanwhile.
    pid_t processOf(std::uint64_t connection) const {
        const auto found = processes_.find(connection);
        return found == processes_.end() ? 0 : found->second;
    }

    // "4711 (command)" where a program serves it.
    std::string serverOf(const CategoryEntry& category) {
        const pid_t process = category.connection ? processOf(*category.connection) : 0;
        if (process == 0) {
            return category.servedBy;
        }
        const std::optional<std::string>& command = names_.ofProcess(process);
        return std::to_string(process) + (command ? " (" + *command + ")" : "");
    }

    void addCategories() {
        Table table({{"CATEGORY", false, 12},
                     {"SERVED BY", false, 9},
                     {"IN FLIGHT", true},
                     {"SUBSCRIBERS", true}});
        const auto shown =
            first(now_.categories, [](const CategoryEntry& one, const CategoryEntry& other) {
                return std::tuple(one.requestsInFlight, one.subscribers) >
                       std::tuple(other.requestsInFlight, other.subscribers);
            });
        for (const CategoryEntry* category : shown) {
            table.add({category->name, serverOf(*category),
                       std::to_string(category->requestsInFlight),
                       std::to_string(category->subscribers)});
        }
        addTable(table, now_.categories.size() - shown.size());
    }

    static std::string activity(const ConnectionEntry& entry) {
        if (entry.category) {
            return "serves " + *entry.category;
        }
        if (entry.subscriptions > 0) {
            return fmt::format("{} subscribed", entry.subscriptions);
        }
        return entry.role == "none" ? "no hello yet" : entry.role;
    }

    std::string state(const ConnectionEntry& entry) const {
        std::string text = entry.isStalled ? "stalled" : entry.isCongested ? "congested" : "";
        if (entry.waitsFor) {
            text += text.empty() ? "" : ", ";
            text += *entry.waitsFor == entry.number ? "has to read"
                    : remote_.contains(*entry.waitsFor)
                        ? "waits for the link"
                        : fmt::format("waits for {}", processOf(*entry.waitsFor));
        }
        return text;
    }

    void addConnections() {
        Table table({{"PROCESS", true},
                     {"COMMAND", false, 8},
                     {"USER", false, 8, 2},
                     {"ROLE", false, 10},
                     {"PENDING", true, 0, 3},
                     {"QUEUED", true},
                     {"AGE", true, 0, 1},
                     {"STATE", false, 17}});
        const auto trouble = [](const ConnectionEntry& entry) {
            return std::tuple(entry.isStalled, entry.isCongested, entry.waitsFor.has_value(),
                              entry.queuedBytes, entry.pendingRequests + entry.requestsInFlight);
        };
        const auto shown = first(
            now_.connections, [&trouble](const ConnectionEntry& one, const ConnectionEntry& other) {
                return trouble(one) > trouble(other);
            });
        for (const ConnectionEntry* entry : shown) {
            table.add({std::to_string(entry->process),
                       names_.ofProcess(entry->process).value_or("?"), names_.user(entry->user),
                       activity(*entry),
                       std::to_string(entry->pendingRequests + entry->requestsInFlight),
                       bytesText(entry->queuedBytes), timeText(entry->ageMs), state(*entry)});
        }
        addTable(table, now_.connections.size() - shown.size());
    }

    // What crosses the link, summed up by category and broker.
    void addRemote() {
        struct Sum {
            std::uint64_t channels = 0;
            std::uint64_t requests = 0;
            std::uint64_t queuedBytes = 0;
            std::optional<std::uint64_t> roundTripUs;
            std::string broker;
        };
        std::map<std::array<std::string, 3>, Sum> sums;
        for (const RemoteEntry& entry : now_.remote) {
            Sum& sum = sums[{entry.category.value_or("all"), entry.way, entry.broker}];
            ++sum.channels;
            sum.requests += entry.pendingRequests + entry.requestsInFlight;
            sum.queuedBytes += entry.queuedBytes;
            sum.roundTripUs = entry.roundTripUs;
            sum.broker = entry.brokerName.empty() ? entry.broker : entry.brokerName;
        }
        Table table({{"OVER THE LINK", false, 12},
                     {"WAY", false, 10},
                     {"BROKER", false, 8},
                     {"ROUND TRIP", true, 0, 2},
                     {"CHANNELS", true, 0, 1},
                     {"PENDING", true},
                     {"QUEUED", true}});
        for (std::size_t left = shownOf(sums.size()); const auto& [key, sum] : sums) {
            if (left-- == 0) {
                break;
            }
            table.add({key[0], words(key[1]), sum.broker,
                       sum.roundTripUs ? fmt::format("{} us", *sum.roundTripUs) : "",
                       std::to_string(sum.channels), std::to_string(sum.requests),
                       bytesText(sum.queuedBytes)});
        }
        addTable(table, sums.size() - shownOf(sums.size()));
    }

    const Snapshot& now_;
    const Snapshot* earlier_;
    const TextFormOptions& options_;
    Names& names_;
    std::map<std::uint64_t, pid_t> processes_;  // by connection
    std::set<std::uint64_t> remote_;
    std::string text_;
};

}  // namespace

std::string textForm(const Snapshot& snapshot, const Snapshot* earlier,
                     const TextFormOptions& options, Names& names) {
    return Form(snapshot, earlier, options, names).text();
}

}  // namespace kavri::management
