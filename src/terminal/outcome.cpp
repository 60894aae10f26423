// The one table of statuses and outcomes, and the advice; see outcome.h.
#include "terminal/outcome.h"

#include <fmt/format.h>

#include <algorithm>

#include "wire/address.h"

namespace kavri::terminal {

namespace {

const char* adviceOn(kavri_core_status status) {
    switch (status) {
        case KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE:
            return "start kavri-broker, or say where it is with --socket";
        case KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID:
            return "a socket path has 1 to 107 bytes";
        case KAVRI_CORE_STATUS_IPC_INCOMPATIBLE:
            return "tool and broker are of different versions; update one of the two";
        case KAVRI_CORE_STATUS_IPC_REFUSED:
            return "the broker's configuration does not allow this to the user";
        case KAVRI_CORE_STATUS_IPC_NO_RESPONDER:
            return "nobody serves the category; start its service, or check the name";
        case KAVRI_CORE_STATUS_IPC_TOO_LARGE:
            return "the payload or a name is longer than the broker allows (payload_bytes), or "
                   "than the servers between machines do (max_payload)";
        case KAVRI_CORE_STATUS_IPC_OVERLOADED:
            return "the service or the broker does not keep up, or has too much pending; try later";
        case KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN:
            return "another program serves the category; only one can at a time";
        case KAVRI_CORE_STATUS_IPC_RESPONDER_LOST:
            return "the service ended while it had the request, and may have acted on it";
        case KAVRI_CORE_STATUS_IPC_CONNECTION_LOST:
            return "the broker ended meanwhile; the message may have arrived";
        default:
            return "see the broker's log";
    }
}

}  // namespace

Outcome outcomeOf(kavri_core_status status) {
    switch (status) {
        case KAVRI_CORE_STATUS_NO_ERROR:
            return Outcome::unanswered;
        case KAVRI_CORE_STATUS_IPC_NO_MESSAGE:
            return Outcome::timedOut;
        case KAVRI_CORE_STATUS_IPC_RESPONDER_LOST:
        case KAVRI_CORE_STATUS_IPC_CONNECTION_LOST:
            return Outcome::unknown;
        default:
            return Outcome::notDelivered;
    }
}

process::ExitStatus exitStatusOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::answered:
            return process::ExitStatus::passed;
        case Outcome::unanswered:
            return process::ExitStatus::failed;
        case Outcome::timedOut:
            return process::ExitStatus::ended;
        case Outcome::notDelivered:
            return process::ExitStatus::couldNotRun;
        case Outcome::unknown:
            break;
    }
    return process::ExitStatus::unknown;
}

const char* nameOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::answered:
            return "answered";
        case Outcome::unanswered:
            return "unanswered";
        case Outcome::timedOut:
            return "timed out";
        case Outcome::notDelivered:
            return "not delivered";
        case Outcome::unknown:
            break;
    }
    return "unknown";
}

std::string keyOf(Outcome outcome) {
    std::string key = nameOf(outcome);
    std::ranges::replace(key, ' ', '_');
    return key;
}

void check(kavri_core_status status, const char* broker) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        const std::string address = wire::brokerAddress(broker != nullptr ? broker : "");
        throw process::CommandFailure(exitStatusOf(outcomeOf(status)),
                                      fmt::format("broker at {}: {}", address, explained(status)));
    }
}

std::string explained(kavri_core_status status) {
    return fmt::format("{}: {}", kavri_core_status_text(status), adviceOn(status));
}

}  // namespace kavri::terminal
