// The forms of the summary; see request_tally.h.
#include "terminal/request/request_tally.h"

#include <fmt/format.h>

#include <algorithm>

#include "terminal/latency_report.h"

namespace kavri::terminal {

void RequestTally::addAnswer(base::Latencies::Duration latency) {
    latencies_.add(latency);
}

void RequestTally::addFailure(kavri_core_status status) {
    ++failures_[{outcomeOf(status), status}];
}

std::size_t RequestTally::total() const {
    std::size_t total = latencies_.count();
    for (const auto& [reason, count] : failures_) {
        total += count;
    }
    return total;
}

process::ExitStatus RequestTally::worst() const {
    process::ExitStatus worst = process::ExitStatus::passed;
    for (const auto& [reason, count] : failures_) {
        worst = std::max(worst, exitStatusOf(reason.first));
    }
    return worst;
}

std::string RequestTally::text(std::chrono::duration<double> took) const {
    std::string text = fmt::format("{} requests in {:.3f} s\n", total(), took.count());
    const auto addLine = [&text](Outcome outcome, std::size_t count, const std::string& reason) {
        text += fmt::format("{:<14}{:>8}{}\n", nameOf(outcome), count, reason);
    };
    addLine(Outcome::answered, latencies_.count(), "");
    for (const auto& [reason, count] : failures_) {
        const auto& [outcome, status] = reason;
        const bool saysMore = outcome == Outcome::notDelivered || outcome == Outcome::unknown;
        addLine(outcome, count, saysMore ? "  " + explained(status) : "");
    }
    return latencies_.count() == 0 ? text : text + "latency  " + latencyText(latencies_) + "\n";
}

Json RequestTally::json(std::chrono::duration<double> took) const {
    Json outcomes;
    for (const Outcome outcome : {Outcome::answered, Outcome::unanswered, Outcome::timedOut,
                                  Outcome::notDelivered, Outcome::unknown}) {
        outcomes[keyOf(outcome)] = 0;
    }
    outcomes[keyOf(Outcome::answered)] = latencies_.count();
    Json reasons = Json::object();
    for (const auto& [reason, count] : failures_) {
        const auto& [outcome, status] = reason;
        outcomes[keyOf(outcome)] = outcomes[keyOf(outcome)].get<std::size_t>() + count;
        if (outcome == Outcome::notDelivered || outcome == Outcome::unknown) {
            reasons[kavri_core_status_text(status)] = count;
        }
    }
    return {{"requests", total()},
            {"seconds", took.count()},
            {"outcomes", outcomes},
            {"reasons", reasons},
            {"latency_us", latencies_.count() == 0 ? Json() : latencyJson(latencies_)}};
}

}  // namespace kavri::terminal
