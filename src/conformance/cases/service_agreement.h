// Compares what a library made of a case with what reached the test service. The record of
// the calls is made within the library's process, and a library that answers by itself
// would pass by it; the record of the service is made where the library cannot write.
#ifndef KAVRI_CONFORMANCE_CASES_SERVICE_AGREEMENT_H
#define KAVRI_CONFORMANCE_CASES_SERVICE_AGREEMENT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "conformance/report/report.h"

namespace kavri::conformance {

// A request, response or event; an event has no uuid.
struct Message {
    std::optional<std::string> category;
    std::optional<std::string> identifier;
    std::optional<std::string> uuid;
    std::optional<std::string> payload;

    bool operator==(const Message&) const = default;
};

// One line of the service's record.
struct ServedRequest {
    std::string connection;      // its identifier, as JSON; empty: not known
    std::optional<int> process;  // of the client; nothing: not known
    Message request;
    std::optional<Message> answer;
    std::optional<Message> event;
};

// Nothing where the line has another form.
std::optional<ServedRequest> parseServedRequest(std::string_view line);

// The messages that the library sent and delivered in a case, in order.
struct CaseTraffic {
    std::vector<Message> requests;  // whose send returned no error
    std::vector<Message> responses;
    std::vector<Message> events;
    // The probe's own echo, which comes last and over a connection of its own.
    bool hasProbeEcho = false;

    // Whether more requests may still be on their way when so many have been served. What
    // was answered or published had been served before.
    bool mayBeUnderWay(std::size_t served) const;
};

CaseTraffic trafficOf(const CaseReport& report, bool hasProbeEcho);

// Each request has arrived once, in order, over one connection; the responses are those
// that the service gave, from the first on; each event is one that it published. A line
// for each of these that does not hold.
std::vector<std::string> disagreements(const CaseTraffic& traffic,
                                       const std::vector<ServedRequest>& served);

}  // namespace kavri::conformance

#endif
