// Counting what the record holds; see required_record.h.
#include "conformance/cases/required_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "conformance/cases/case_guide.h"
#include "conformance/faults/module_checks.h"

namespace kavri::conformance {

namespace {

constexpr int noError = 0;
constexpr int refused = 4;
constexpr std::string_view receive = "kavri_core_ipc_initiator_response_receive";

bool returned(const CallReport& call, int status) {
    const auto found = call.result.find("status");
    return found != call.result.end() && *found == status;
}

// Whether a receive returned what every response has; only the payload may be null.
bool namesResponse(const CallReport& call) {
    return std::ranges::all_of(std::array{"targetCategory", "targetIdentifier", "uuid"},
                               [&](const char* name) {
                                   const auto found = call.result.find(name);
                                   return found != call.result.end() && found->is_string();
                               });
}

class Comparison {
  public:
    explicit Comparison(const std::vector<CallReport>& calls) : calls_(calls) {}

    // Calls of a function that returned, with whatever status.
    void requireCalls(std::string_view function, unsigned required) {
        compare(required, fmt::format("call{} of {}", plural(required), function),
                [&](const CallReport& call) { return isCallOf(call, function); });
    }

    void requireCalls(std::string_view function, int status, unsigned required) {
        compare(required,
                fmt::format("call{} of {} that returned {}", plural(required), function, status),
                [&](const CallReport& call) {
                    return isCallOf(call, function) && returned(call, status);
                });
    }

    void requireResponses(unsigned required) {
        compare(required,
                fmt::format("receive{} of a response with category, identifier and uuid",
                            plural(required)),
                [](const CallReport& call) {
                    return isCallOf(call, receive) && returned(call, noError) &&
                           namesResponse(call);
                });
    }

    // Of a callback, "response" or "event", that returned.
    void requireDeliveries(std::string_view callback, unsigned required) {
        compare(required, fmt::format("{} {}", callback, required == 1 ? "delivery" : "deliveries"),
                [&](const CallReport& call) {
                    return call.kind == CallReport::Kind::delivery && call.function == callback &&
                           call.endNs;
                });
    }

    std::vector<std::string> take() { return std::move(lines_); }

  private:
    static std::string_view plural(unsigned count) { return count == 1 ? "" : "s"; }

    static bool isCallOf(const CallReport& call, std::string_view function) {
        return call.kind == CallReport::Kind::call && call.function == function && call.endNs;
    }

    template <typename Predicate>
    void compare(unsigned required, const std::string& what, Predicate matches) {
        const auto held = std::ranges::count_if(calls_, matches);
        if (held != required) {
            lines_.push_back(fmt::format("{} {} must have been made; the record holds {}", required,
                                         what, held));
        }
    }

    const std::vector<CallReport>& calls_;
    std::vector<std::string> lines_;
};

}  // namespace

std::vector<std::string> missingFrom(const CaseReport& report, Level level) {
    const CaseGuide* guide = findCaseGuide(report.name);
    if (guide == nullptr) {
        return {};
    }
    const Required& required = guide->required;
    Comparison record(report.calls);
    // Calls that returned as their check asks, where that check is required.
    const auto requireChecked = [&](std::string_view function, std::string_view check,
                                    unsigned count) {
        if (levelOf(report.name, check) >= level) {
            record.requireCalls(function, noError, count);
        } else {
            record.requireCalls(function, count);
        }
    };
    record.requireCalls("kavri_core_init", noError, 1);
    requireChecked("kavri_core_logging_init", isLogging, 1);
    record.requireCalls("kavri_core_ipc_initiator_init", noError, 1);
    record.requireCalls("kavri_core_ipc_initiator_command_send", noError, required.sends);
    record.requireResponses(required.responses);
    record.requireCalls(receive, refused, required.refusedReceives);
    record.requireCalls("kavri_core_ipc_initiator_response_receive_callback", noError,
                        required.responseInstalls);
    record.requireDeliveries("response", required.responseDeliveries);
    record.requireCalls("kavri_core_ipc_initiator_event_subscribe", noError, required.subscribes);
    requireChecked("kavri_core_ipc_initiator_event_unsubscribe", isUnsubscribed,
                   required.unsubscribes);
    record.requireCalls("kavri_core_ipc_initiator_event_receive_callback", noError,
                        required.eventInstalls);
    record.requireDeliveries("event", required.eventDeliveries);
    // The module does not ask what these return.
    record.requireCalls("kavri_core_ipc_deinit", 1);
    record.requireCalls("kavri_core_logging_deinit", 1);
    record.requireCalls("kavri_core_deinit", 1);
    return record.take();
}

}  // namespace kavri::conformance
