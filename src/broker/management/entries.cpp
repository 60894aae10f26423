// The lines of each kind of report; see entries.h.
#include "broker/management/entries.h"

#include "broker/session/transport.h"
#include "wire/limit_settings.h"

namespace kavri::broker {

namespace {

std::string_view nameOf(Role role) {
    switch (role) {
        case Role::initiator:
            return "initiator";
        case Role::responder:
            return "responder";
        case Role::manager:
            return "manager";
        case Role::unknown:
            break;
    }
    return "none";
}

auto millisecondsSince(Clock::time_point begin, Clock::time_point now) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(now - begin).count();
}

// Of every session, wherever its program runs.
void describeSession(Lines& lines, const Session& session, const FlowControl& flow,
                     Clock::time_point now) {
    lines.add("age_ms", millisecondsSince(session.connected, now));
    lines.add("pending_requests", session.asInitiator.pendingRequests);
    lines.add("requests_in_flight", session.asResponder.requestsInFlight);
    lines.add("queued_bytes", session.sendQueue.bytes());
    lines.add("input_bytes", session.input.charge.bytes());
    lines.add("congested", flow.isCongested(session) ? 1 : 0);
    lines.add("stalled",
              session.congestion != nullptr && !session.congestion->meter.isSteady() ? 1 : 0);
    if (session.isBlocked()) {
        lines.add("waits_for", numberOf(session.waiting.on->id));
    }
}

}  // namespace

void describeBroker(Lines& lines, const BrokerFacts& facts, Clock::time_point now) {
    lines.add("format", reportFormat);
    lines.add("version", facts.version);
    lines.add("process", facts.process);
    lines.add("user", facts.user);
    lines.add("uptime_ms", millisecondsSince(facts.started, now));
}

void describeLimits(Lines& lines, const wire::Limits& limits) {
    for (const wire::LimitSetting& setting : wire::limitSettings) {
        lines.add(setting.name, setting.get(limits));
    }
}

void describeConnections(Lines& lines, const ConnectionCounts& counts, std::size_t present) {
    lines.add("present", present);
    lines.add("most", counts.most);
    lines.add("accepted", counts.accepted);
    lines.add("refused_not_permitted", counts.notPermitted);
    lines.add("refused_connections", counts.aboveLimit);
    lines.add("refused_connections_per_user", counts.aboveLimitOfUser);
    lines.add("refused_out_of_resources", counts.outOfResources);
    for (std::size_t i = 0; i < closeCauses.size(); ++i) {
        if (static_cast<CloseCause>(i) != CloseCause::stopping) {
            lines.add(closeCauses[i].name, counts.closed[i]);
        }
    }
}

void describeTraffic(Lines& lines, const TrafficCounts& counts) {
    lines.add("requests", counts.requests);
    lines.add("responses", counts.responses);
    lines.add("completions", counts.completions);
    lines.add("events_published", counts.publishedEvents);
    lines.add("events_delivered", counts.deliveredEvents);
    lines.add("notices_refused", counts.refused);
    lines.add("notices_no_responder", counts.noResponder);
    lines.add("notices_responder_lost", counts.responderLost);
    lines.add("notices_overloaded", counts.overloaded);
    lines.add("notices_too_large", counts.tooLarge);
    lines.add("dropped_answers", counts.droppedAnswers);
    lines.add("dropped_events", counts.droppedEvents);
}

void describeUser(Lines& lines, uid_t user, const UserAccount& account) {
    lines.add("user", user);
    lines.add("connections", account.connections);
    lines.add("bytes", account.memory.bytes());
}

void describeConnection(Lines& lines, const Session& session, const FlowControl& flow,
                        Clock::time_point now) {
    lines.add("connection", numberOf(session.id));
    lines.add("user", session.user);
    lines.add("process", session.process);
    lines.add("role", nameOf(session.role));
    lines.add("subscriptions", session.asInitiator.subscriptions.size());
    describeSession(lines, session, flow, now);
}

void describeRemote(Lines& lines, const Session& session, const FlowControl& flow,
                    Clock::time_point now) {
    lines.add("connection", numberOf(session.id));
    session.transport->describe(lines);
    describeSession(lines, session, flow, now);
}

void describeCategory(Lines& lines, const Category& category) {
    lines.add("name_bytes", category.name.size());
    lines.add("subscribers", category.subscribers.size());
    if (category.local != nullptr) {
        lines.add("served_by", "broker");
    } else if (category.responder != nullptr) {
        lines.add("served_by", "responder");
        lines.add("connection", numberOf(category.responder->id));
        lines.add("requests_in_flight", category.responder->asResponder.requestsInFlight);
    } else {
        lines.add("served_by", "nobody");
    }
}

}  // namespace kavri::broker
