// One function for each rule; see record_judgement.h.
#include "conformance/cases/record_judgement.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <limits>
#include <optional>

#include "conformance/cases/interface_rules.h"

namespace kavri::conformance {

namespace {

constexpr std::string_view coreInit = "kavri_core_init";
constexpr std::string_view coreDeinit = "kavri_core_deinit";
constexpr std::string_view loggingInit = "kavri_core_logging_init";
constexpr std::string_view loggingDeinit = "kavri_core_logging_deinit";
constexpr std::string_view initiatorInit = "kavri_core_ipc_initiator_init";
constexpr std::string_view initiatorDeinit = "kavri_core_ipc_deinit";
constexpr std::string_view receive = "kavri_core_ipc_initiator_response_receive";
constexpr std::string_view subscribe = "kavri_core_ipc_initiator_event_subscribe";
constexpr std::string_view responseCallback = "kavri_core_ipc_initiator_response_receive_callback";
constexpr std::string_view eventCallback = "kavri_core_ipc_initiator_event_receive_callback";

using Calls = std::vector<CallReport>;

nlohmann::json valueIn(const nlohmann::json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() ? *found : nlohmann::json();
}

bool isCall(const CallReport& call, std::string_view function) {
    return call.kind == CallReport::Kind::call && call.function == function;
}
bool isDelivery(const CallReport& call) {
    return call.kind == CallReport::Kind::delivery;
}

// None where the call did not return.
std::optional<int> statusOf(const CallReport& call) {
    const nlohmann::json status = valueIn(call.result, "status");
    return call.endNs && status.is_number() ? std::optional(status.get<int>()) : std::nullopt;
}
bool succeeded(const CallReport& call) {
    return statusOf(call) == 0;
}
bool failed(const CallReport& call) {
    return statusOf(call).value_or(0) != 0;
}

bool isOfSameInitiator(const CallReport& one, const CallReport& other) {
    return valueIn(one.arguments, "initiator") == valueIn(other.arguments, "initiator");
}

std::int64_t endOf(const CallReport& call) {
    return call.endNs.value_or(std::numeric_limits<std::int64_t>::max());
}

// The call was made by the callback while that was running.
bool isWithin(const CallReport& call, const CallReport& delivery) {
    return call.thread == delivery.thread && delivery.beginNs <= call.beginNs &&
           call.beginNs <= endOf(delivery);
}

class Judgement {
  public:
    explicit Judgement(const CaseReport& report) : calls_(report.calls) {}

    std::vector<WarningReport> warnings() {
        callbacksRunOneAtATime();
        callbacksRunOnTheLibrarysThread();
        for (const CallReport& call : calls_) {
            if (isDelivery(call)) {
                checkDelivery(call);
            } else if (call.endNs) {
                checkReturned(call);
            }
            checkHandle(call);
        }
        return std::move(warnings_);
    }

  private:
    // One warning for each rule and sentence, with the number of violations.
    void add(const WarningReport& warning) {
        const auto known = std::ranges::find_if(warnings_, [&](const WarningReport& each) {
            return each.rule == warning.rule && each.sentence == warning.sentence;
        });
        if (known != warnings_.end()) {
            ++known->times;
        } else {
            warnings_.push_back(warning);
        }
    }
    void add(std::string_view rule, const std::string& text) { add(warningFor(rule, text)); }

    void callbacksRunOneAtATime() {
        for (std::size_t i = 0; i < calls_.size(); ++i) {
            const CallReport& later = calls_[i];
            const bool overlaps =
                isDelivery(later) &&
                std::any_of(calls_.begin(), calls_.begin() + static_cast<std::ptrdiff_t>(i),
                            [&](const CallReport& earlier) {
                                return isDelivery(earlier) && isOfSameInitiator(earlier, later) &&
                                       later.beginNs < endOf(earlier);
                            });
            if (overlaps) {
                add("one-callback-at-a-time",
                    fmt::format("the {} callback was called while another call of a callback was "
                                "running",
                                later.function));
            }
        }
    }

    void callbacksRunOnTheLibrarysThread() {
        const auto first = std::ranges::find(calls_, CallReport::Kind::call, &CallReport::kind);
        for (const CallReport& call : calls_) {
            if (isDelivery(call) && first != calls_.end() && call.thread == first->thread) {
                add("callback-thread",
                    fmt::format("the {} callback was called on the thread of the caller",
                                call.function));
            }
        }
    }

    void checkDelivery(const CallReport& delivery) {
        const bool isEvent = delivery.function == "event";
        checkIsInstalled(delivery, isEvent ? eventCallback : responseCallback);
        if (isEvent) {
            checkIsSubscribed(delivery);
        }
        for (const char* name :
             {"targetCategory", "targetIdentifier", isEvent ? "payload" : "uuid"}) {
            const auto found = delivery.arguments.find(name);
            if (found != delivery.arguments.end() && found->is_null()) {
                add(isEvent ? "event-strings" : "response-strings",
                    fmt::format("the {} callback was called without {}", delivery.function, name));
            }
        }
    }

    // Whether the callback was removed, or its initiator ended, before the delivery ended.
    void checkIsInstalled(const CallReport& delivery, std::string_view install) {
        for (const CallReport& call : calls_) {
            const bool removes =
                isCall(call, install) && valueIn(call.arguments, "callback").is_null();
            const bool ends = isCall(call, initiatorDeinit);
            if ((!removes && !ends) || !succeeded(call) || !isOfSameInitiator(call, delivery) ||
                endOf(delivery) <= *call.endNs || isWithin(call, delivery) ||
                (removes && isInstalledBetween(call, delivery, install))) {
                continue;
            }
            add(removes ? "callback-after-removal" : "callback-after-end",
                fmt::format("the {} callback {} when {} had returned", delivery.function,
                            delivery.beginNs > *call.endNs ? "was called" : "was still running",
                            call.function));
        }
    }

    bool isInstalledBetween(const CallReport& removal, const CallReport& delivery,
                            std::string_view install) const {
        return std::ranges::any_of(calls_, [&](const CallReport& call) {
            return isCall(call, install) && !valueIn(call.arguments, "callback").is_null() &&
                   isOfSameInitiator(call, delivery) && call.beginNs > removal.beginNs &&
                   call.beginNs < delivery.beginNs;
        });
    }

    void checkIsSubscribed(const CallReport& delivery) {
        const nlohmann::json category = valueIn(delivery.arguments, "targetCategory");
        const bool isSubscribed = std::ranges::any_of(calls_, [&](const CallReport& call) {
            return isCall(call, subscribe) && isOfSameInitiator(call, delivery) &&
                   valueIn(call.arguments, "category") == category &&
                   call.beginNs < delivery.beginNs;
        });
        if (!isSubscribed && category.is_string()) {
            add("subscribed-events",
                fmt::format("an event of {} was delivered without a subscription to it",
                            category.dump()));
        }
    }

    void checkReturned(const CallReport& call) {
        checkStatus(call);
        const nlohmann::json handle = valueIn(call.result, "handle");
        if (call.function == receive) {
            checkReceived(call);
        } else if (call.function == initiatorInit && failed(call) && handle == true) {
            add("failed-init-stores-nothing", storedText(call));
        } else if (call.function == initiatorInit && succeeded(call) && handle == false) {
            add("initiator-stored", storedNothingText(call));
        } else if (call.function == loggingInit && failed(call) && handle == true) {
            add("failed-logging-stores-nothing", storedText(call));
        } else if (call.function == loggingInit && succeeded(call) && handle == false) {
            add("cookie-stored", storedNothingText(call));
        }
    }

    static std::string storedText(const CallReport& call) {
        return fmt::format("{} returned {} and stored something", call.function,
                           statusText(statusOf(call).value_or(0)));
    }
    static std::string storedNothingText(const CallReport& call) {
        return call.function + " returned NO_ERROR and stored nothing";
    }

    static std::string statusText(int status) {
        const std::string_view name = statusName(status);
        return fmt::format("{}{}", status, name.empty() ? "" : fmt::format(" ({})", name));
    }

    // The functions that end something fail for an argument alone.
    bool mayFail(const CallReport& call) const {
        if (call.function == initiatorDeinit) {
            return valueIn(call.arguments, "initiator").is_null();
        }
        if (call.function == loggingDeinit) {
            return valueIn(call.arguments, "cookie").is_null();
        }
        return call.function != coreDeinit ||
               std::ranges::none_of(calls_, [](const CallReport& each) {
                   return isCall(each, coreInit) && succeeded(each);
               });
    }

    void checkStatus(const CallReport& call) {
        const StatusList* list = findStatusList(call.function);
        const std::optional<int> status = statusOf(call);
        if (list == nullptr || !status || (list->has(*status) && (*status == 0 || mayFail(call)))) {
            return;
        }
        WarningReport warning;
        warning.rule = listedStatusRule;
        warning.text = fmt::format("{} returned {}", call.function, statusText(*status));
        warning.header = list->header;
        warning.sentence = list->sentence;
        add(warning);
    }

    void checkReceived(const CallReport& call) {
        for (const char* name : {"targetCategory", "targetIdentifier", "uuid", "payload"}) {
            const auto found = call.result.find(name);
            if (failed(call) && found != call.result.end()) {
                add("refused-stores-nothing",
                    fmt::format("{} returned {} and stored {}", call.function,
                                statusText(statusOf(call).value_or(0)), name));
                return;
            }
            const bool mayBeNull = std::string_view(name) == "payload";
            if (succeeded(call) && !mayBeNull && found != call.result.end() && found->is_null()) {
                add("response-stored",
                    fmt::format("{} returned NO_ERROR and stored no {}", call.function, name));
            }
        }
    }

    // A library that calls functions of the interface itself may use a handle too late.
    void checkHandle(const CallReport& call) {
        if (isDelivery(call) || valueIn(call.arguments, "initiator").is_null()) {
            return;
        }
        const bool hasEnded = std::ranges::any_of(calls_, [&](const CallReport& each) {
            return isCall(each, initiatorDeinit) && succeeded(each) &&
                   isOfSameInitiator(each, call) && *each.endNs < call.beginNs;
        });
        if (hasEnded) {
            add("handle-after-end",
                fmt::format("{} was called for an initiator that had ended", call.function));
        }
    }

    const Calls& calls_;
    std::vector<WarningReport> warnings_;
};

}  // namespace

std::vector<WarningReport> judgeRecord(const CaseReport& report) {
    return Judgement(report).warnings();
}

WarningReport warningFor(std::string_view rule, const std::string& text) {
    const InterfaceRule* broken = findInterfaceRule(rule);
    assert(broken != nullptr);
    return {.rule = std::string(broken->name),
            .text = text,
            .header = std::string(broken->header),
            .sentence = std::string(broken->sentence)};
}

}  // namespace kavri::conformance
