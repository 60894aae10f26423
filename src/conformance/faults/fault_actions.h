// What the rules of the faults are made of: conditions on a call or delivery, in
// `when`, and what is done with it, in `act`.
#ifndef KAVRI_CONFORMANCE_FAULTS_FAULT_ACTIONS_H
#define KAVRI_CONFORMANCE_FAULTS_FAULT_ACTIONS_H

#include <kavri/ipc.h>

#include <optional>
#include <string>
#include <string_view>

#include "conformance/faults/fault_catalogue.h"
#include "conformance/faults/fault_memory.h"

namespace kavri::conformance {

namespace when {

inline constexpr auto always = [](const Call& /*call*/) { return true; };
inline constexpr auto third = [](const Call& call) { return call.ordinal == 3; };
inline constexpr auto thirdOrFourth = [](const Call& call) {
    return call.ordinal == 3 || call.ordinal == 4;
};
inline constexpr auto thirdInProcess = [](const Call& call) { return call.ordinalInProcess == 3; };
inline constexpr auto installs = [](const Call& call) { return call.installs; };
inline constexpr auto removes = [](const Call& call) { return !call.installs; };
inline constexpr auto clearsCounter = [](const Call& call) {
    return std::string_view(call.sent[identifierField]) == "clr_repeat_count";
};
inline constexpr auto allowed = [](const Call& call) { return !call.callbackInstalled; };
inline constexpr auto refused = [](const Call& call) { return call.callbackInstalled; };
inline constexpr auto refusedPoll = [](const Call& call) {
    return refused(call) && call.timeoutMs == 0;
};
inline constexpr auto refusedWait = [](const Call& call) {
    return refused(call) && call.timeoutMs < 0;
};
inline constexpr auto allowedWait = [](const Call& call) {
    return allowed(call) && call.timeoutMs < 0;
};
inline constexpr auto earlyPoll = [](const Call& call) {
    return allowed(call) && call.timeoutMs == 0 && call.ordinal <= 6;
};
inline constexpr auto forFirstResponse = [](const Call& call) {
    return allowed(call) && call.responsesBefore == 0;
};
inline constexpr auto forCounter = [](const Call& call) {
    return allowed(call) && call.counterAsked;
};
inline constexpr auto responseKept = [](const Call& call) {
    const std::lock_guard lock(faultMemoryMutex);
    return allowed(call) && !faultMemory.keptResponses.empty();
};
inline constexpr auto deliveryDelayed = [](const Call& /*call*/) {
    const std::lock_guard lock(faultMemoryMutex);
    return !faultMemory.keptDeliveries.empty();
};

inline constexpr auto anyDelivery = [](const Delivery& /*delivery*/) { return true; };
inline constexpr auto firstTwo = [](const Delivery& delivery) { return delivery.ordinal <= 2; };
inline constexpr auto thirdDelivery = [](const Delivery& delivery) {
    return delivery.ordinal == 3;
};
inline constexpr auto lastDelivery = [](const Delivery& delivery) {
    return delivery.ordinal == 10;
};

}  // namespace when

namespace act {

// In place of a call.
kavri_core_status fail(const Call& call);
kavri_core_status pretendSuccess(const Call& call);
kavri_core_status findNothing(const Call& call);
kavri_core_status crash(const Call& call);
kavri_core_status hang(const Call& call);
kavri_core_status endProcess(const Call& call);
kavri_core_status print(const Call& call);
kavri_core_status leakDescriptor(const Call& call);
kavri_core_status sendTwice(const Call& call);
kavri_core_status sendToOtherCategory(const Call& call);
kavri_core_status sendOtherIdentifier(const Call& call);
kavri_core_status sendOtherUuid(const Call& call);
kavri_core_status sendOtherPayload(const Call& call);
kavri_core_status sendIncrement(const Call& call);
kavri_core_status swapWithNext(const Call& call);  // of the third and fourth
kavri_core_status returnKeptResponse(const Call& call);
kavri_core_status storeThoughRefused(const Call& call);
kavri_core_status deliverDelayed(const Call& call);  // then makes the call

// After a call that succeeded.
kavri_core_status reportFailure(const Call& call);
kavri_core_status cutPayload(const Call& call);
kavri_core_status repeatPayload(const Call& call);
kavri_core_status setConstantUuid(const Call& call);
kavri_core_status increaseCount(const Call& call);
kavri_core_status storeUnallocated(const Call& call);
kavri_core_status dropAndReceiveNext(const Call& call);
kavri_core_status keepCopy(const Call& call);
kavri_core_status returnOtherFirst(const Call& call);

// Frees a string, and puts a copy of the other in its place, or null.
void replace(char*& text, const std::optional<std::string>& by);

template <Field field>
kavri_core_status append(const Call& call) {
    char*& text = *call.received.at(field);
    replace(text, std::string(text != nullptr ? text : "") + "!");
    return KAVRI_CORE_STATUS_NO_ERROR;
}
template <Field field>
kavri_core_status clear(const Call& call) {
    replace(*call.received.at(field), std::nullopt);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

// In place of a delivery.
void drop(Delivery delivery);
void deliverTwice(Delivery delivery);
void delay(Delivery delivery);
void deliverAgainLater(Delivery delivery);
void swapFirstTwo(Delivery delivery);
void deliverTwoConcurrently(Delivery delivery);
void deliverOtherContext(Delivery delivery);
void deliverNonNumericUuid(Delivery delivery);

template <Field field>
void deliverWithout(Delivery delivery) {
    delivery.fields.at(field) = nullptr;
    delivery.forward(delivery);
}

}  // namespace act

inline CallRule instead(Function function, bool (*when)(const Call&),
                        kavri_core_status (*action)(const Call&), std::string_view did) {
    return {function, when, action, nullptr, did};
}
inline CallRule after(Function function, bool (*when)(const Call&),
                      kavri_core_status (*action)(const Call&), std::string_view did) {
    return {function, when, nullptr, action, did};
}

// What several rules did, in the words of the record.
inline constexpr std::string_view didReport = "reported a failure of a call that succeeded";
inline constexpr std::string_view didFail = "reported a failure and did nothing";
inline constexpr std::string_view didPretend = "reported success and did nothing";
inline constexpr std::string_view didCrash = "crashed in the call";
inline constexpr std::string_view didHang = "did not return";
inline constexpr std::string_view didWithout = "called the callback with a null argument";
inline constexpr std::string_view didDelay = "delayed the delivery";
inline constexpr std::string_view didKeepCopy = "kept a copy of the last delivery";
inline constexpr std::string_view didDeliverDelayed = "delivered what had been kept";

}  // namespace kavri::conformance

#endif
