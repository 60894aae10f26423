// Reading and comparing both records; see service_agreement.h.
#include "conformance/cases/service_agreement.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace kavri::conformance {

namespace {

using nlohmann::json;

constexpr std::string_view sendFunction = "kavri_core_ipc_initiator_command_send";
constexpr std::string_view receiveFunction = "kavri_core_ipc_initiator_response_receive";
constexpr int noError = 0;

std::optional<std::string> textIn(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? std::optional(found->get<std::string>())
                                                       : std::nullopt;
}

// With the names of the parameters in the interface.
Message recordedMessage(const json& values) {
    return {textIn(values, "targetCategory"), textIn(values, "targetIdentifier"),
            textIn(values, "uuid"), textIn(values, "payload")};
}

std::optional<Message> servedMessage(const json& entry, const char* key) {
    const auto found = entry.find(key);
    if (found == entry.end() || !found->is_object()) {
        return std::nullopt;
    }
    return Message{textIn(*found, "category"), textIn(*found, "identifier"), textIn(*found, "uuid"),
                   textIn(*found, "payload")};
}

std::string shown(const Message& message) {
    nlohmann::ordered_json values = nlohmann::ordered_json::object();
    const auto add = [&values](const char* name, const std::optional<std::string>& text) {
        if (text) {
            values[name] = *text;
        }
    };
    add("category", message.category);
    add("identifier", message.identifier);
    add("uuid", message.uuid);
    add("payload", message.payload);
    return values.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool succeeded(const CallReport& call) {
    const auto status = call.result.find("status");
    return call.endNs && status != call.result.end() && *status == noError;
}

std::string textOr(const Message* message, const char* otherwise) {
    return message != nullptr ? shown(*message) : otherwise;
}

const Message* at(const std::vector<Message>& messages, std::size_t i) {
    return i < messages.size() ? &messages[i] : nullptr;
}

std::vector<Message> requestsIn(const std::vector<ServedRequest>& served) {
    std::vector<Message> requests;
    std::ranges::transform(served, std::back_inserter(requests), &ServedRequest::request);
    return requests;
}

std::vector<Message> given(const std::vector<ServedRequest>& served,
                           std::optional<Message> ServedRequest::*what) {
    std::vector<Message> messages;
    for (const ServedRequest& each : served) {
        if (const std::optional<Message>& message = each.*what) {
            messages.push_back(*message);
        }
    }
    return messages;
}

void compareRequests(const std::vector<Message>& sent, const std::vector<Message>& arrived,
                     std::vector<std::string>& lines) {
    const auto [differs, ignored] = std::ranges::mismatch(sent, arrived);
    const auto i = static_cast<std::size_t>(differs - sent.begin());
    if (i == sent.size() && i == arrived.size()) {
        return;
    }
    const std::string counts = fmt::format(
        "{} sent, its record holds {}",
        sent.size() == 1 ? "1 was" : fmt::format("{} were", sent.size()), arrived.size());
    lines.push_back(fmt::format(
        "{}: {}; request {} was {}, and the record has {}",
        arrived.size() < sent.size()   ? "requests never reached the service"
        : arrived.size() > sent.size() ? "the service got requests that were not sent"
                                       : "the service got other requests than were sent",
        counts, i + 1, textOr(at(sent, i), "none"), textOr(at(arrived, i), "none")));
}

// `count`: of the case's own requests.
void compareConnections(const std::vector<ServedRequest>& served, std::size_t count,
                        std::vector<std::string>& lines) {
    const auto end = served.begin() + static_cast<std::ptrdiff_t>(std::min(count, served.size()));
    const auto other = std::adjacent_find(served.begin(), end,
                                          [](const ServedRequest& one, const ServedRequest& next) {
                                              return one.connection != next.connection;
                                          });
    if (other != end) {
        lines.push_back(
            fmt::format("request {} came over another connection than the one before; "
                        "an initiator has one",
                        other - served.begin() + 2));
    }
}

void compareResponses(const std::vector<Message>& responses, const std::vector<Message>& answers,
                      std::vector<std::string>& lines) {
    const auto [differs, ignored] = std::ranges::mismatch(responses, answers);
    if (differs == responses.end()) {
        return;
    }
    const auto i = static_cast<std::size_t>(differs - responses.begin());
    lines.push_back(fmt::format("response {} was {}, and the service answered {}", i + 1,
                                shown(*differs), textOr(at(answers, i), "nothing")));
}

void compareEvents(const std::vector<Message>& events, std::vector<Message> published,
                   std::vector<std::string>& lines) {
    for (const Message& event : events) {
        const auto found = std::ranges::find(published, event);
        if (found == published.end()) {
            lines.push_back(fmt::format("the service never published the event {}", shown(event)));
            return;
        }
        published.erase(found);
    }
}

}  // namespace

std::optional<ServedRequest> parseServedRequest(std::string_view line) {
    const json entry = json::parse(line, nullptr, false);
    if (!entry.is_object()) {
        return std::nullopt;
    }
    const std::optional<Message> request = servedMessage(entry, "request");
    if (!request) {
        return std::nullopt;
    }
    ServedRequest served;
    served.request = *request;
    if (const json connection = entry.value("connection", json()); !connection.is_null()) {
        served.connection = connection.dump();
    }
    if (const auto process = entry.find("process");
        process != entry.end() && process->is_number_integer()) {
        served.process = process->get<int>();
    }
    served.answer = servedMessage(entry, "answer");
    served.event = servedMessage(entry, "event");
    return served;
}

bool CaseTraffic::mayBeUnderWay(std::size_t served) const {
    return served < requests.size() + (hasProbeEcho ? 1 : 0) &&
           served >= std::max(responses.size(), events.size());
}

CaseTraffic trafficOf(const CaseReport& report, bool hasProbeEcho) {
    CaseTraffic traffic;
    traffic.hasProbeEcho = hasProbeEcho;
    for (const CallReport& call : report.calls) {
        if (call.kind == CallReport::Kind::delivery) {
            (call.function == "event" ? traffic.events : traffic.responses)
                .push_back(recordedMessage(call.arguments));
        } else if (call.function == sendFunction && succeeded(call)) {
            traffic.requests.push_back(recordedMessage(call.arguments));
        } else if (call.function == receiveFunction && succeeded(call)) {
            traffic.responses.push_back(recordedMessage(call.result));
        }
    }
    return traffic;
}

std::vector<std::string> disagreements(const CaseTraffic& traffic,
                                       const std::vector<ServedRequest>& served) {
    std::vector<std::string> lines;
    std::vector<Message> sent = traffic.requests;
    if (traffic.hasProbeEcho) {
        sent.push_back({"test", "echo", "peer", "peer"});
    }
    compareRequests(sent, requestsIn(served), lines);
    compareConnections(served, traffic.requests.size(), lines);
    compareResponses(traffic.responses, given(served, &ServedRequest::answer), lines);
    compareEvents(traffic.events, given(served, &ServedRequest::event), lines);
    return lines;
}

}  // namespace kavri::conformance
