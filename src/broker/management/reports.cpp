// The walk through what there is to report; see reports.h.
#include "broker/management/reports.h"

#include <algorithm>
#include <optional>
#include <type_traits>

namespace kavri::broker {

using wire::Field;
using wire::Frame;
using wire::FrameType;

bool Reports::begin(Session& manager, std::uint64_t token) {
    const auto isSame = [&manager](const Report& report) { return report.manager == &manager; };
    if (std::ranges::any_of(reports_, isSame)) {
        return false;
    }
    reports_.push_back({&manager, token});
    return true;
}

void Reports::forget(const Session& session) {
    reports_.remove_if([&session](const Report& report) { return report.manager == &session; });
}

bool Reports::mayGoOn(const Report& report) {
    return !report.manager->isClosing && report.manager->sendQueue.bytes() <= mostQueuedBytes;
}

bool Reports::somebodyMayGoOn() const {
    return std::ranges::any_of(reports_, mayGoOn);
}

void Reports::advanceSome() {
    std::size_t steps = stepsPerRound;
    for (std::size_t turns = reports_.size(); turns > 0 && steps > 0; --turns) {
        Report& report = reports_.front();
        for (; steps > 0 && mayGoOn(report) && report.stage != Stage::done; --steps) {
            step(report);
        }
        if (report.stage == Stage::done) {
            router_.acknowledge(*report.manager, report.token, KAVRI_CORE_STATUS_NO_ERROR);
            reports_.pop_front();
        } else {
            reports_.splice(reports_.end(), reports_, reports_.begin());
        }
    }
}

void Reports::step(Report& report) {
    switch (report.stage) {
        case Stage::broker:
            show(report, "broker",
                 [&] { describeBroker(lines_, surroundings_.facts, Clock::now()); });
            return enter(report, Stage::limits);
        case Stage::limits:
            show(report, "limits", [&] { describeLimits(lines_, surroundings_.limits); });
            return enter(report, Stage::connections);
        case Stage::connections:
            show(report, "connections", [&] {
                describeConnections(lines_, surroundings_.connections, surroundings_.present());
            });
            return enter(report, Stage::traffic);
        case Stage::traffic:
            show(report, "traffic", [&] { describeTraffic(lines_, router_.counts()); });
            return enter(report, Stage::link);
        case Stage::link:
            return stepLink(report);
        case Stage::users:
            return stepUsers(report);
        case Stage::embedded:
            return stepEmbedded(report);
        case Stage::sessions:
            return stepSessions(report);
        case Stage::done:
            return;
    }
}

void Reports::enter(Report& report, Stage stage) {
    report.stage = stage;
    report.next = 0;
}

void Reports::stepLink(Report& report) {
    if (const RemoteServices* const link = router_.remote()) {
        show(report, "link", [&] { return std::optional(link->describe(lines_)); });
    }
    enter(report, Stage::users);
}

// A user without connections is shown while something is held for him, and not otherwise.
void Reports::stepUsers(Report& report) {
    const User user = surroundings_.userFrom(report.next);
    if (user.account == nullptr) {
        return enter(report, Stage::embedded);
    }
    if (user.account->connections > 0 || user.account->memory.bytes() > 0) {
        show(report, "user", [&] { describeUser(lines_, user.user, *user.account); });
    }
    report.next = std::uint64_t{user.user} + 1;
}

void Reports::stepEmbedded(Report& report) {
    if (report.next == router_.embedded().size()) {
        return enter(report, Stage::sessions);
    }
    showCategory(report, *router_.embedded()[report.next]);
    ++report.next;
}

void Reports::stepSessions(Report& report) {
    const Session* const session = surroundings_.sessionFrom(report.next);
    if (session == nullptr) {
        return enter(report, Stage::done);
    }
    if (session->id == report.shown) {
        return stepSubscriptions(report, *session);
    }
    showSession(report, *session);
    if (const Category* const served = session->asResponder.served) {
        showCategory(report, *served);
    }
    report.shown = session->id;
    report.subscription = 0;
    report.next = session->id.index;
}

// Behind the last subscription comes the next session.
void Reports::stepSubscriptions(Report& report, const Session& session) {
    const std::vector<Subscription>& subscriptions = session.asInitiator.subscriptions;
    if (report.subscription >= subscriptions.size()) {
        report.next = std::uint64_t{session.id.index} + 1;
        return;
    }
    const Category& category = *subscriptions[report.subscription++].category;
    if (!category.isServed() && category.subscribers.front() == &session) {
        showCategory(report, category);
    }
}

void Reports::showSession(const Report& report, const Session& session) {
    if (session.transport != nullptr) {
        return show(report, "remote", [&] {
            describeRemote(lines_, session, router_.flowControl(), Clock::now());
            return session.transport->categoryCarried();
        });
    }
    show(report, "connection", [&]() -> std::optional<std::string_view> {
        describeConnection(lines_, session, router_.flowControl(), Clock::now());
        const Category* const served = session.asResponder.served;
        return served == nullptr ? std::nullopt : std::optional<std::string_view>(served->name);
    });
}

void Reports::showCategory(const Report& report, const Category& category) {
    show(report, "category", [&] {
        describeCategory(lines_, category);
        return std::optional<std::string_view>(category.name);
    });
}

// describe adds the lines, and may return a name that belongs to them.
template <typename Describe>
void Reports::show(const Report& report, std::string_view kind, const Describe& describe) {
    lines_.clear();
    Frame frame;
    frame.type = FrameType::report;
    frame.token = report.token;
    frame[Field::identifier] = kind;
    if constexpr (std::is_void_v<decltype(describe())>) {
        describe();
    } else if (const std::optional<std::string_view> name = describe()) {
        frame[Field::category] = name->substr(0, longestReportedName);
    }
    frame[Field::payload] = lines_.text();
    router_.send(*report.manager, frame);
}

}  // namespace kavri::broker
