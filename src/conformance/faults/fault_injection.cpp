// Finding the rule for a call or delivery, and applying it; see fault_injection.h.
#include "conformance/faults/fault_injection.h"

#include <algorithm>
#include <cassert>
#include <string>
#include <string_view>

#include "conformance/agent/record.h"
#include "conformance/faults/fault_catalogue.h"
#include "conformance/faults/fault_memory.h"

namespace kavri::conformance {

namespace {

// Null: nothing is broken.
const Fault* chosenFault() {
    static const Fault* const chosen = [] {
        const std::string name = environmentVariable("KAVRI_PROBE_FAULT");
        const Fault* fault = findFault(name);
        if (fault == nullptr && !name.empty()) {
            giveUp("no fault \"" + name + "\"");
        }
        return fault;
    }();
    return chosen;
}

// Fills in the call's ordinals and what happened before it, and counts it.
void place(Call& call) {
    static std::array<unsigned, functionCount> callsInProcess{};
    const auto function = static_cast<std::size_t>(call.function);
    const std::lock_guard lock(faultMemoryMutex);
    if (call.function == Function::initiatorInit) {
        clearFaultMemory();
    }
    call.ordinal = ++faultMemory.calls.at(function);
    call.ordinalInProcess = ++callsInProcess.at(function);
    call.responsesBefore = faultMemory.responses;
    call.callbackInstalled = faultMemory.callbackInstalled;
    call.counterAsked = faultMemory.counterAsked;
    if (call.function == Function::commandSend) {
        faultMemory.counterAsked =
            std::string_view(call.sent[identifierField]) == "get_repeat_count";
    }
}

void noteSuccess(const Call& call) {
    const std::lock_guard lock(faultMemoryMutex);
    if (call.function == Function::responseReceive) {
        ++faultMemory.responses;
    } else if (call.function == Function::responseCallback) {
        faultMemory.callbackInstalled = call.installs;
    }
}

// The first rule that matches; null where none does.
template <typename Rule, typename Matches>
const Rule* firstRule(const std::vector<Rule>& rules, Matches matches) {
    const auto rule = std::ranges::find_if(rules, matches);
    return rule != rules.end() ? &*rule : nullptr;
}

}  // namespace

kavri_core_status perform(Call& call) {
    const Fault* fault = chosenFault();
    if (fault == nullptr) {
        return call.forward(call);
    }
    place(call);
    const CallRule* rule = firstRule(fault->calls, [&call](const CallRule& each) {
        return each.function == call.function && each.when(call);
    });
    assert(rule == nullptr || (rule->instead == nullptr) != (rule->after == nullptr));
    const bool isInstead = rule != nullptr && rule->instead != nullptr;
    if (isInstead) {
        recordFault(fault->name, call.number, rule->did);
    }
    const kavri_core_status status = isInstead ? rule->instead(call) : call.forward(call);
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return status;
    }
    noteSuccess(call);
    if (rule == nullptr || rule->after == nullptr) {
        return status;
    }
    recordFault(fault->name, call.number, rule->did);
    return rule->after(call);
}

void deliver(const Delivery& delivery) {
    const Fault* fault = chosenFault();
    const DeliveryRule* rule =
        fault == nullptr
            ? nullptr
            : firstRule(fault->deliveries, [&delivery](const DeliveryRule& each) {
                  return each.stream == delivery.installation->stream && each.when(delivery);
              });
    if (rule == nullptr) {
        delivery.forward(delivery);
        return;
    }
    recordFault(fault->name, delivery.number, rule->did);
    rule->instead(delivery);
}

}  // namespace kavri::conformance
