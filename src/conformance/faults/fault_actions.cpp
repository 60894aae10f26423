// The actions; see fault_actions.h.
#include "conformance/faults/fault_actions.h"

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cstdlib>
#include <thread>
#include <utility>

#include "conformance/agent/record.h"

namespace kavri::conformance::act {

namespace {

constexpr kavri_core_status failure = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;

char* copyOf(const char* text) {
    return text != nullptr ? strdup(text) : nullptr;
}

OwnFields copyOf(OwnFields fields) {
    std::ranges::transform(fields, fields.begin(), [](const char* text) { return copyOf(text); });
    return fields;
}

// Sends with one field replaced.
kavri_core_status sendWith(Call call, Field field, const std::string& text) {
    call.sent.at(field) = text.c_str();
    return call.forward(call);
}

void store(const Call& call, const OwnFields& fields) {
    for (std::size_t i = 0; i < fieldCount; ++i) {
        *call.received.at(i) = fields.at(i);
    }
}

OwnFields receivedBy(const Call& call) {
    OwnFields fields{};
    std::ranges::transform(call.received, fields.begin(), [](char** text) { return *text; });
    return fields;
}

// What the library gave to the callback, which must free it.
OwnFields fieldsOf(const Delivery& delivery) {
    OwnFields fields{};
    std::ranges::transform(delivery.fields, fields.begin(),
                           [](char** text) { return text != nullptr ? *text : nullptr; });
    return fields;
}

KeptDelivery copyOf(const Delivery& delivery) {
    KeptDelivery copy{delivery, copyOf(fieldsOf(delivery))};
    copy.delivery.number = nextNumber();
    return copy;
}

void deliver(KeptDelivery kept) {
    for (std::size_t i = 0; i < fieldCount; ++i) {
        kept.delivery.fields.at(i) = &kept.fields.at(i);
    }
    kept.delivery.forward(kept.delivery);
}

std::string payloadOf(const Call& call) {
    const char* text = *call.received.at(payloadField);
    return text != nullptr ? text : "";
}

kavri_core_status setPayload(const Call& call, const std::string& text) {
    replace(*call.received.at(payloadField), text);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

}  // namespace

// ------------------------------------------------------------- in place of a call

kavri_core_status fail(const Call& /*call*/) {
    return failure;
}
kavri_core_status pretendSuccess(const Call& /*call*/) {
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status findNothing(const Call& /*call*/) {
    return KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
}
kavri_core_status crash(const Call& /*call*/) {
    static_cast<void>(raise(SIGSEGV));
    return failure;
}
kavri_core_status hang(const Call& /*call*/) {
    while (true) {
        pause();
    }
}
kavri_core_status endProcess(const Call& /*call*/) {
    _exit(EXIT_SUCCESS);
}

kavri_core_status print(const Call& call) {
    constexpr std::string_view text = "a library that talks\n";
    static_cast<void>(!write(STDOUT_FILENO, text.data(), text.size()));
    return call.forward(call);
}

kavri_core_status leakDescriptor(const Call& call) {
    static_cast<void>(dup(STDERR_FILENO));
    return call.forward(call);
}

kavri_core_status sendTwice(const Call& call) {
    const kavri_core_status first = call.forward(call);
    return first == KAVRI_CORE_STATUS_NO_ERROR ? call.forward(call) : first;
}

kavri_core_status sendToOtherCategory(const Call& call) {
    return sendWith(call, categoryField, "nobody");
}
kavri_core_status sendOtherIdentifier(const Call& call) {
    return sendWith(call, identifierField, std::string(call.sent[identifierField]) + "x");
}
// In front, where a reader of numbers sees it too.
kavri_core_status sendOtherUuid(const Call& call) {
    return sendWith(call, uuidField, "1" + std::string(call.sent[uuidField]));
}
kavri_core_status sendOtherPayload(const Call& call) {
    return sendWith(call, payloadField, std::string(call.sent[payloadField]) + "!");
}
// Whatever the counter was, it is not 0 then.
kavri_core_status sendIncrement(const Call& call) {
    return sendWith(call, identifierField, "inc_repeat_count");
}

kavri_core_status swapWithNext(const Call& call) {
    if (call.ordinal == 3) {
        const std::lock_guard lock(faultMemoryMutex);
        auto& kept = faultMemory.keptSend.emplace();
        std::ranges::copy(call.sent, kept.begin());
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    const kavri_core_status status = call.forward(call);
    const auto kept = [] {
        const std::lock_guard lock(faultMemoryMutex);
        return std::exchange(faultMemory.keptSend, std::nullopt);
    }();
    if (kept) {
        Call late = call;
        std::ranges::transform(*kept, late.sent.begin(), &std::string::c_str);
        late.forward(late);
    }
    return status;
}

kavri_core_status returnKeptResponse(const Call& call) {
    if (const auto fields = takeFirst(&FaultMemory::keptResponses)) {
        store(call, *fields);
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status storeThoughRefused(const Call& call) {
    store(call, {strdup("test"), strdup("echo"), strdup("0"), strdup("stored")});
    return call.forward(call);
}

// The module's callback is called here, by the thread that ends the initiator.
kavri_core_status deliverDelayed(const Call& call) {
    while (const auto kept = takeFirst(&FaultMemory::keptDeliveries)) {
        deliver(*kept);
    }
    return call.forward(call);
}

// ------------------------------------------------------ after a call that succeeded

kavri_core_status reportFailure(const Call& /*call*/) {
    return failure;
}

void replace(char*& text, const std::optional<std::string>& by) {
    std::free(text);
    text = by ? strdup(by->c_str()) : nullptr;
}

kavri_core_status cutPayload(const Call& call) {
    std::string payload = payloadOf(call);
    payload.resize(std::max<std::size_t>(payload.size(), 1) - 1);
    return setPayload(call, payload);
}
kavri_core_status repeatPayload(const Call& call) {
    const std::string payload = payloadOf(call);
    const auto before = [&payload] {
        const std::lock_guard lock(faultMemoryMutex);
        return std::exchange(faultMemory.lastPayload, payload);
    }();
    return setPayload(call, before.value_or(payload));
}
kavri_core_status setConstantUuid(const Call& call) {
    replace(*call.received.at(uuidField), "7");
    return KAVRI_CORE_STATUS_NO_ERROR;
}
kavri_core_status increaseCount(const Call& call) {
    return setPayload(call, std::to_string(strtol(payloadOf(call).c_str(), nullptr, 10) + 1));
}

// A string that free does not accept.
kavri_core_status storeUnallocated(const Call& call) {
    static std::array<char, 64> unallocated{};
    char*& text = *call.received.at(payloadField);
    strncpy(unallocated.data(), text, unallocated.size() - 1);
    std::free(text);
    text = unallocated.data();
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status dropAndReceiveNext(const Call& call) {
    for (char** text : call.received) {
        replace(*text, std::nullopt);
    }
    return call.forward(call);
}

kavri_core_status keepCopy(const Call& call) {
    keep(&FaultMemory::keptResponses, copyOf(receivedBy(call)));
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status returnOtherFirst(const Call& call) {
    const OwnFields real = receivedBy(call);
    OwnFields other = copyOf(real);
    replace(other[payloadField], "0");
    store(call, other);
    keep(&FaultMemory::keptResponses, real);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

// --------------------------------------------------------- in place of a delivery

void drop(Delivery delivery) {
    std::ranges::for_each(fieldsOf(delivery), std::free);
}
void deliverTwice(Delivery delivery) {
    const KeptDelivery again = copyOf(delivery);
    delivery.forward(delivery);
    deliver(again);
}
void delay(Delivery delivery) {
    keep(&FaultMemory::keptDeliveries, {delivery, fieldsOf(delivery)});
}
void deliverAgainLater(Delivery delivery) {
    keep(&FaultMemory::keptDeliveries, copyOf(delivery));
    delivery.forward(delivery);
}
void swapFirstTwo(Delivery delivery) {
    if (delivery.ordinal == 1) {
        delay(delivery);
        return;
    }
    delivery.forward(delivery);
    if (const auto first = takeFirst(&FaultMemory::keptDeliveries)) {
        deliver(*first);
    }
}
void deliverTwoConcurrently(Delivery delivery) {
    if (delivery.ordinal == 1) {
        delay(delivery);
        return;
    }
    auto first = takeFirst(&FaultMemory::keptDeliveries).value();
    std::barrier<> together(2);
    first.delivery.together = &together;
    delivery.together = &together;
    const std::jthread other([&first] { deliver(first); });
    delivery.forward(delivery);
}
void deliverOtherContext(Delivery delivery) {
    delivery.context = &faultMemory;
    delivery.forward(delivery);
}
void deliverNonNumericUuid(Delivery delivery) {
    replace(*delivery.fields.at(uuidField), "none");
    delivery.forward(delivery);
}

}  // namespace kavri::conformance::act
