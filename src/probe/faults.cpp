// The faults, as two tables: what is done in place of a call or after it, and
// what in place of a delivery; see faults.h.
//
// Each row says of which call or delivery it is, and the first row that fits is
// the one. So every fault is what its rows say and nothing else, and it does the
// same in each run: rows go by what was called before, never by the time.
#include "probe/faults.h"

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "probe/record.h"

namespace kavri::probe {

namespace {

constexpr kavri_core_status failure = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;

// ------------------------------------------------------- what a fault remembers

using OwnTexts = std::array<char*, textCount>;

struct HeldDelivery {
    Delivery delivery;
    OwnTexts texts{};
};

// Of one initiator: the module has one at a time. Guarded by the mutex, which is
// never held while the library or the module runs.
struct Memory {
    std::array<unsigned, functionCount> calls{};
    unsigned responses = 0;
    bool callbackInstalled = false;
    bool countAsked = false;
    std::optional<std::array<std::string, textCount>> heldSend;
    std::deque<OwnTexts> heldResponses;
    std::deque<HeldDelivery> heldDeliveries;
    std::optional<std::string> lastPayload;
};
std::mutex memoryMutex;
// Outlives the process' statics: a callback may still be under way then.
Memory& memory = *new Memory;

// A new initiator: nothing went before, and nothing is held back.
void forget() {
    for (const OwnTexts& texts : memory.heldResponses) {
        std::ranges::for_each(texts, std::free);
    }
    for (const HeldDelivery& delivery : memory.heldDeliveries) {
        std::ranges::for_each(delivery.texts, std::free);
    }
    memory = {};
}

char* copyOf(const char* text) {
    return text != nullptr ? strdup(text) : nullptr;
}

template <typename Member>
std::optional<typename Member::value_type> takeFirst(Member Memory::*queue) {
    const std::lock_guard lock(memoryMutex);
    if ((memory.*queue).empty()) {
        return std::nullopt;
    }
    const auto first = (memory.*queue).front();
    (memory.*queue).pop_front();
    return first;
}

// ------------------------------------------------------------- which call it is

using When = bool (*)(const Call&);

bool always(const Call& /*call*/) {
    return true;
}
bool third(const Call& call) {
    return call.ordinal == 3;
}
bool thirdOrFourth(const Call& call) {
    return call.ordinal == 3 || call.ordinal == 4;
}
bool thirdInProcess(const Call& call) {
    return call.ordinalInProcess == 3;
}
bool installs(const Call& call) {
    return call.installs;
}
bool removes(const Call& call) {
    return !call.installs;
}
bool clearsCount(const Call& call) {
    return std::string_view(call.sent[identifierText]) == "clr_repeat_count";
}
bool isAllowed(const Call& call) {
    return !call.callbackInstalled;
}
bool isRefused(const Call& call) {
    return call.callbackInstalled;
}
bool isRefusedPoll(const Call& call) {
    return call.callbackInstalled && call.timeoutMs == 0;
}
bool isRefusedWait(const Call& call) {
    return call.callbackInstalled && call.timeoutMs < 0;
}
bool isAllowedWait(const Call& call) {
    return !call.callbackInstalled && call.timeoutMs < 0;
}
bool isAllowedPoll(const Call& call) {
    return !call.callbackInstalled && call.timeoutMs == 0;
}
bool isEarlyPoll(const Call& call) {
    return isAllowedPoll(call) && call.ordinal <= 6;
}
bool isForFirstResponse(const Call& call) {
    return !call.callbackInstalled && call.responsesBefore == 0;
}
bool isForCount(const Call& call) {
    return !call.callbackInstalled && call.countAsked;
}
bool hasHeldResponse(const Call& call) {
    const std::lock_guard lock(memoryMutex);
    return !call.callbackInstalled && !memory.heldResponses.empty();
}
bool hasHeldDelivery(const Call& /*call*/) {
    const std::lock_guard lock(memoryMutex);
    return !memory.heldDeliveries.empty();
}

// ---------------------------------------------- what is done in place of a call

using Action = kavri_core_status (*)(const Call&);

kavri_core_status fail(const Call& /*call*/) {
    return failure;
}
kavri_core_status pretend(const Call& /*call*/) {
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

kavri_core_status doTwice(const Call& call) {
    const kavri_core_status first = call.forward(call);
    return first == KAVRI_CORE_STATUS_NO_ERROR ? call.forward(call) : first;
}

// Sends with one text replaced.
kavri_core_status sendWith(Call call, Text which, const std::string& text) {
    call.sent.at(which) = text.c_str();
    return call.forward(call);
}
kavri_core_status sendElsewhere(const Call& call) {
    return sendWith(call, categoryText, "nobody");
}
kavri_core_status sendOtherIdentifier(const Call& call) {
    return sendWith(call, identifierText, std::string(call.sent[identifierText]) + "x");
}
// In front, where a reader of numbers sees it too.
kavri_core_status sendOtherUuid(const Call& call) {
    return sendWith(call, uuidText, "1" + std::string(call.sent[uuidText]));
}
kavri_core_status sendOtherPayload(const Call& call) {
    return sendWith(call, payloadText, std::string(call.sent[payloadText]) + "!");
}
// Whatever the counter was, it is not 0 then.
kavri_core_status countInstead(const Call& call) {
    return sendWith(call, identifierText, "inc_repeat_count");
}

// The third is kept back, the fourth sent, and the third after it.
kavri_core_status sendLater(const Call& call) {
    if (call.ordinal == 3) {
        const std::lock_guard lock(memoryMutex);
        std::array<std::string, textCount>& held = memory.heldSend.emplace();
        std::copy(call.sent.begin(), call.sent.end(), held.begin());
        return KAVRI_CORE_STATUS_NO_ERROR;
    }
    const kavri_core_status status = call.forward(call);
    const auto held = [] {
        const std::lock_guard lock(memoryMutex);
        return std::exchange(memory.heldSend, std::nullopt);
    }();
    if (held) {
        Call late = call;
        std::transform(held->begin(), held->end(), late.sent.begin(),
                       [](const std::string& text) { return text.c_str(); });
        late.forward(late);
    }
    return status;
}

void store(const Call& call, const OwnTexts& texts) {
    for (std::size_t i = 0; i < textCount; ++i) {
        *call.received.at(i) = texts.at(i);
    }
}

kavri_core_status receiveHeld(const Call& call) {
    if (const auto texts = takeFirst(&Memory::heldResponses)) {
        store(call, *texts);
    }
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status refuseYetStore(const Call& call) {
    store(call, {strdup("test"), strdup("echo"), strdup("0"), strdup("stored")});
    return call.forward(call);
}

// -------------------------------------- what is done after a call that succeeded

kavri_core_status reportFailure(const Call& /*call*/) {
    return failure;
}

void replace(char*& text, const std::optional<std::string>& by) {
    std::free(text);
    text = by ? strdup(by->c_str()) : nullptr;
}

// Changes one of the strings that a receive handed out.
template <Text which, typename Change>
kavri_core_status change(const Call& call, Change newText) {
    char*& text = *call.received.at(which);
    replace(text, newText(std::string(text != nullptr ? text : "")));
    return KAVRI_CORE_STATUS_NO_ERROR;
}
template <Text which>
kavri_core_status append(const Call& call) {
    return change<which>(call, [](const std::string& text) { return text + "!"; });
}
template <Text which>
kavri_core_status withhold(const Call& call) {
    return change<which>(call, [](const std::string& /*text*/) { return std::nullopt; });
}
kavri_core_status cutPayload(const Call& call) {
    return change<payloadText>(call, [](const std::string& text) {
        return text.substr(0, std::max<std::size_t>(text.size(), 1) - 1);
    });
}
kavri_core_status repeatPayload(const Call& call) {
    return change<payloadText>(call, [](const std::string& text) {
        const std::lock_guard lock(memoryMutex);
        return std::exchange(memory.lastPayload, text).value_or(text);
    });
}
kavri_core_status constantUuid(const Call& call) {
    return change<uuidText>(call, [](const std::string& /*text*/) { return "7"; });
}
kavri_core_status countTooHigh(const Call& call) {
    return change<payloadText>(call, [](const std::string& text) {
        return std::to_string(strtol(text.c_str(), nullptr, 10) + 1);
    });
}

// What free takes for none of its own.
kavri_core_status storeUnowned(const Call& call) {
    static std::array<char, 64> unowned{};
    char*& text = *call.received.at(payloadText);
    strncpy(unowned.data(), text, unowned.size() - 1);
    replace(text, std::nullopt);
    text = unowned.data();
    return KAVRI_CORE_STATUS_NO_ERROR;
}

OwnTexts takenFrom(const Call& call) {
    OwnTexts texts{};
    std::transform(call.received.begin(), call.received.end(), texts.begin(),
                   [](char** text) { return std::exchange(*text, nullptr); });
    return texts;
}

kavri_core_status dropAndReceiveAnother(const Call& call) {
    for (char* text : takenFrom(call)) {
        std::free(text);
    }
    return call.forward(call);
}

kavri_core_status keepCopyForNext(const Call& call) {
    OwnTexts copies{};
    std::transform(call.received.begin(), call.received.end(), copies.begin(),
                   [](char** text) { return copyOf(*text); });
    const std::lock_guard lock(memoryMutex);
    memory.heldResponses.push_back(copies);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

kavri_core_status handOutAnotherFirst(const Call& call) {
    const OwnTexts texts = takenFrom(call);
    store(call, {copyOf(texts[categoryText]), copyOf(texts[identifierText]),
                 copyOf(texts[uuidText]), strdup("0")});
    const std::lock_guard lock(memoryMutex);
    memory.heldResponses.push_back(texts);
    return KAVRI_CORE_STATUS_NO_ERROR;
}

// ------------------------------------------------ what is done with a delivery

using WhenDelivered = bool (*)(const Delivery&);
using Handling = void (*)(Delivery);

bool each(const Delivery& /*delivery*/) {
    return true;
}
bool firstTwo(const Delivery& delivery) {
    return delivery.ordinal <= 2;
}
bool thirdDelivery(const Delivery& delivery) {
    return delivery.ordinal == 3;
}
bool lastDelivery(const Delivery& delivery) {
    return delivery.ordinal == 10;
}

// Makes the strings the probe's own.
HeldDelivery held(const Delivery& delivery) {
    HeldDelivery result = {delivery, {}};
    std::transform(delivery.texts.begin(), delivery.texts.end(), result.texts.begin(),
                   [](char** text) { return text != nullptr ? *text : nullptr; });
    return result;
}
HeldDelivery copied(const Delivery& delivery) {
    HeldDelivery result = held(delivery);
    std::transform(result.texts.begin(), result.texts.end(), result.texts.begin(), copyOf);
    result.delivery.number = nextNumber();
    return result;
}
void handOver(HeldDelivery delivery) {
    for (std::size_t i = 0; i < textCount; ++i) {
        delivery.delivery.texts.at(i) = &delivery.texts.at(i);
    }
    probe::handOver(delivery.delivery);
}
void keep(const HeldDelivery& delivery) {
    const std::lock_guard lock(memoryMutex);
    memory.heldDeliveries.push_back(delivery);
}

void drop(Delivery delivery) {
    for (char* text : held(delivery).texts) {
        std::free(text);
    }
}
void handOverTwice(Delivery delivery) {
    const HeldDelivery again = copied(delivery);
    probe::handOver(delivery);
    handOver(again);
}
void handOverLater(Delivery delivery) {
    keep(held(delivery));
}
void handOverAgainLater(Delivery delivery) {
    keep(copied(delivery));
    probe::handOver(delivery);
}
void swapFirstTwo(Delivery delivery) {
    if (delivery.ordinal == 1) {
        keep(held(delivery));
        return;
    }
    probe::handOver(delivery);
    if (const auto first = takeFirst(&Memory::heldDeliveries)) {
        handOver(*first);
    }
}
void handOverTwoAtOnce(Delivery delivery) {
    if (delivery.ordinal == 1) {
        keep(held(delivery));
        return;
    }
    const auto first = takeFirst(&Memory::heldDeliveries);
    const std::jthread other([&first] { handOver(first.value()); });
    probe::handOver(delivery);
}
void handOverOtherContext(Delivery delivery) {
    delivery.context = &memory;
    probe::handOver(delivery);
}
template <Text which>
void handOverWithout(Delivery delivery) {
    delivery.texts.at(which) = nullptr;
    probe::handOver(delivery);
}
void handOverNoNumber(Delivery delivery) {
    replace(*delivery.texts.at(uuidText), "none");
    probe::handOver(delivery);
}

// The module's callback is called here, by whoever ends the initiator.
kavri_core_status handOverHeld(const Call& call) {
    while (const auto delivery = takeFirst(&Memory::heldDeliveries)) {
        handOver(*delivery);
    }
    return call.forward(call);
}

// ------------------------------------------------------------------- the tables

struct CallRow {
    std::string_view fault;
    Function function;
    When when;
    Action instead;  // or null
    Action after;    // or null
    std::string_view did;
};

constexpr CallRow instead(std::string_view fault, Function function, When when, Action action,
                          std::string_view did) {
    return {fault, function, when, action, nullptr, did};
}
constexpr CallRow after(std::string_view fault, Function function, When when, Action action,
                        std::string_view did) {
    return {fault, function, when, nullptr, action, did};
}

constexpr std::string_view didReport = "reported a failure of a call that succeeded";
constexpr std::string_view didFail = "reported a failure and did nothing";
constexpr std::string_view didPretend = "reported success and did nothing";
constexpr std::string_view didCrash = "crashed in the call";
constexpr std::string_view didHang = "did not return";
constexpr std::string_view didHoldBack = "handed over what had been held back";

constexpr std::array callRows = {
    // Up and down.
    after("init-fails", Function::coreInit, always, reportFailure, didReport),
    instead("init-crashes", Function::coreInit, always, crash, didCrash),
    instead("init-hangs", Function::coreInit, always, hang, didHang),
    instead("init-prints", Function::coreInit, always, print, "printed to standard output"),
    after("logging-init-fails", Function::loggingInit, always, reportFailure, didReport),
    instead("logging-init-no-cookie", Function::loggingInit, always, pretend, didPretend),
    instead("logging-init-crashes", Function::loggingInit, always, crash, didCrash),
    after("initiator-init-fails", Function::initiatorInit, always, reportFailure, didReport),
    instead("initiator-init-refuses", Function::initiatorInit, always, fail, didFail),
    instead("initiator-init-no-handle", Function::initiatorInit, always, pretend, didPretend),
    instead("initiator-init-crashes", Function::initiatorInit, always, crash, didCrash),
    instead("initiator-init-hangs", Function::initiatorInit, always, hang, didHang),
    after("initiator-deinit-fails", Function::initiatorDeinit, always, reportFailure, didReport),
    instead("initiator-deinit-crashes", Function::initiatorDeinit, always, crash, didCrash),
    instead("initiator-deinit-hangs", Function::initiatorDeinit, always, hang, didHang),
    after("logging-deinit-fails", Function::loggingDeinit, always, reportFailure, didReport),
    instead("logging-deinit-crashes", Function::loggingDeinit, always, crash, didCrash),
    instead("logging-deinit-hangs", Function::loggingDeinit, always, hang, didHang),
    after("deinit-fails", Function::coreDeinit, always, reportFailure, didReport),
    instead("deinit-crashes", Function::coreDeinit, always, crash, didCrash),
    instead("deinit-hangs", Function::coreDeinit, always, hang, didHang),
    instead("deinit-leaks-descriptor", Function::coreDeinit, always, leakDescriptor,
            "left a descriptor open"),

    // Requests.
    instead("send-fails", Function::commandSend, always, fail, didFail),
    after("send-reports-failure", Function::commandSend, always, reportFailure, didReport),
    after("send-fails-once", Function::commandSend, thirdInProcess, reportFailure, didReport),
    instead("send-lost", Function::commandSend, third, pretend, didPretend),
    instead("send-doubled", Function::commandSend, third, doTwice, "sent the request twice"),
    instead("send-swapped", Function::commandSend, thirdOrFourth, sendLater,
            "sent the third request after the fourth"),
    instead("send-other-category", Function::commandSend, always, sendElsewhere,
            "sent the request to the category \"nobody\""),
    instead("send-other-identifier", Function::commandSend, always, sendOtherIdentifier,
            "sent the request with an \"x\" behind its identifier"),
    instead("send-other-uuid", Function::commandSend, always, sendOtherUuid,
            "sent the request with a \"1\" before its uuid"),
    instead("send-other-payload", Function::commandSend, always, sendOtherPayload,
            "sent the request with a \"!\" behind its payload"),
    instead("send-hangs", Function::commandSend, always, hang, didHang),
    instead("send-crashes", Function::commandSend, always, crash, didCrash),
    instead("send-exits", Function::commandSend, always, endProcess,
            "ended the process with exit status 0"),
    instead("count-not-cleared", Function::commandSend, clearsCount, countInstead,
            "sent \"inc_repeat_count\" in place of \"clr_repeat_count\""),

    // Receives.
    after("receive-fails", Function::responseReceive, isAllowed, reportFailure,
          "reported a failure of a receive that handed out a response"),
    instead("receive-does-not-wait", Function::responseReceive, isAllowedWait, findNothing,
            "found no response, at once"),
    after("receive-payload-altered", Function::responseReceive, isAllowed, append<payloadText>,
          "put a \"!\" behind the payload"),
    after("receive-payload-cut", Function::responseReceive, isAllowed, cutPayload,
          "took the last byte from the payload"),
    after("receive-payload-repeated", Function::responseReceive, isAllowed, repeatPayload,
          "handed out the payload of the response before, where there was one"),
    after("receive-uuid-altered", Function::responseReceive, isAllowed, append<uuidText>,
          "put a \"!\" behind the uuid"),
    after("receive-uuid-constant", Function::responseReceive, isAllowed, constantUuid,
          "handed out the uuid \"7\""),
    after("receive-no-payload", Function::responseReceive, isAllowed, withhold<payloadText>,
          "handed out no payload"),
    after("receive-no-uuid", Function::responseReceive, isAllowed, withhold<uuidText>,
          "handed out no uuid"),
    after("receive-no-category", Function::responseReceive, isAllowed, withhold<categoryText>,
          "handed out no category"),
    after("receive-no-identifier", Function::responseReceive, isAllowed, withhold<identifierText>,
          "handed out no identifier"),
    after("receive-string-not-allocated", Function::responseReceive, isAllowed, storeUnowned,
          "handed out a payload that was never allocated"),
    after("receive-loses-response", Function::responseReceive, isForFirstResponse,
          dropAndReceiveAnother, "lost the first response"),
    instead("receive-doubles-response", Function::responseReceive, hasHeldResponse, receiveHeld,
            "handed out the first response again"),
    after("receive-doubles-response", Function::responseReceive, isForFirstResponse,
          keepCopyForNext, "kept a copy of the first response"),
    instead("receive-late", Function::responseReceive, isEarlyPoll, findNothing,
            "found no response in one of the first six tries"),
    instead("receive-additional-response", Function::responseReceive, hasHeldResponse, receiveHeld,
            "handed out the response that had been held back"),
    after("receive-additional-response", Function::responseReceive, isForCount, handOutAnotherFirst,
          "handed out another response first"),
    after("count-too-high", Function::responseReceive, isForCount, countTooHigh,
          "added 1 to the service's counter"),
    instead("receive-not-refused-polling", Function::responseReceive, isRefusedPoll, findNothing,
            "looked for a response although a callback is installed"),
    instead("receive-not-refused-waiting", Function::responseReceive, isRefusedWait, hang,
            "waited for a response although a callback is installed"),
    instead("receive-refused-otherwise", Function::responseReceive, isRefused, fail,
            "refused a receive with another status"),
    instead("receive-refused-stores", Function::responseReceive, isRefused, refuseYetStore,
            "refused a receive and stored strings"),
    instead("receive-crashes", Function::responseReceive, always, crash, didCrash),
    instead("receive-hangs", Function::responseReceive, always, hang, didHang),

    // The response callback.
    after("response-install-fails", Function::responseCallback, installs, reportFailure, didReport),
    instead("response-install-ignored", Function::responseCallback, installs, pretend, didPretend),
    after("response-removal-fails", Function::responseCallback, removes, reportFailure, didReport),
    instead("response-removal-ignored", Function::responseCallback, removes, pretend, didPretend),
    instead("response-removal-crashes", Function::responseCallback, removes, crash, didCrash),
    instead("response-removal-hangs", Function::responseCallback, removes, hang, didHang),
    instead("response-removal-too-early", Function::initiatorDeinit, hasHeldDelivery, handOverHeld,
            didHoldBack),
    instead("response-late", Function::initiatorDeinit, hasHeldDelivery, handOverHeld, didHoldBack),
    instead("response-after-removal", Function::initiatorDeinit, hasHeldDelivery, handOverHeld,
            didHoldBack),

    // Events.
    after("event-subscribe-fails", Function::eventSubscribe, always, reportFailure, didReport),
    instead("event-subscribe-ignored", Function::eventSubscribe, always, pretend, didPretend),
    instead("event-subscribe-hangs", Function::eventSubscribe, always, hang, didHang),
    after("event-install-fails", Function::eventCallback, installs, reportFailure, didReport),
    instead("event-install-ignored", Function::eventCallback, installs, pretend, didPretend),
    after("event-removal-fails", Function::eventCallback, removes, reportFailure, didReport),
    instead("event-removal-ignored", Function::eventCallback, removes, pretend, didPretend),
    instead("event-removal-hangs", Function::eventCallback, removes, hang, didHang),
    instead("event-removal-too-early", Function::initiatorDeinit, hasHeldDelivery, handOverHeld,
            didHoldBack),
    instead("event-late", Function::initiatorDeinit, hasHeldDelivery, handOverHeld, didHoldBack),
    instead("event-after-removal", Function::initiatorDeinit, hasHeldDelivery, handOverHeld,
            didHoldBack),
    after("event-unsubscribe-fails", Function::eventUnsubscribe, always, reportFailure, didReport),
    instead("event-unsubscribe-ignored", Function::eventUnsubscribe, always, pretend, didPretend),
    instead("event-unsubscribe-crashes", Function::eventUnsubscribe, always, crash, didCrash),
};

struct DeliveryRow {
    std::string_view fault;
    Stream stream;
    WhenDelivered when;
    Handling handle;
    std::string_view did;
};

constexpr std::string_view didWithout = "called the callback with a null argument";
constexpr std::string_view didKeep = "held the delivery back";
constexpr std::string_view didKeepCopy = "kept a copy of the last delivery";

constexpr std::array deliveryRows = {
    DeliveryRow{"response-context-wrong", Stream::response, each, handOverOtherContext,
                "called the callback with another context"},
    DeliveryRow{"response-no-category", Stream::response, each, handOverWithout<categoryText>,
                didWithout},
    DeliveryRow{"response-no-identifier", Stream::response, each, handOverWithout<identifierText>,
                didWithout},
    DeliveryRow{"response-no-uuid", Stream::response, each, handOverWithout<uuidText>, didWithout},
    DeliveryRow{"response-no-payload", Stream::response, each, handOverWithout<payloadText>,
                didWithout},
    DeliveryRow{"response-uuid-no-number", Stream::response, each, handOverNoNumber,
                "delivered the uuid \"none\""},
    DeliveryRow{"response-lost", Stream::response, thirdDelivery, drop, "lost the third response"},
    DeliveryRow{"response-doubled", Stream::response, thirdDelivery, handOverTwice,
                "delivered the third response twice"},
    DeliveryRow{"response-swapped", Stream::response, firstTwo, swapFirstTwo,
                "delivered the second response before the first"},
    DeliveryRow{"response-removal-too-early", Stream::response, lastDelivery, handOverLater,
                didKeep},
    DeliveryRow{"response-late", Stream::response, each, handOverLater, didKeep},
    DeliveryRow{"response-after-removal", Stream::response, lastDelivery, handOverAgainLater,
                didKeepCopy},
    DeliveryRow{"event-context-wrong", Stream::event, each, handOverOtherContext,
                "called the callback with another context"},
    DeliveryRow{"event-no-category", Stream::event, each, handOverWithout<categoryText>,
                didWithout},
    DeliveryRow{"event-no-identifier", Stream::event, each, handOverWithout<identifierText>,
                didWithout},
    DeliveryRow{"event-no-payload", Stream::event, each, handOverWithout<payloadText>, didWithout},
    DeliveryRow{"event-lost", Stream::event, thirdDelivery, drop, "lost the third event"},
    DeliveryRow{"event-doubled", Stream::event, thirdDelivery, handOverTwice,
                "delivered the third event twice"},
    DeliveryRow{"event-swapped", Stream::event, firstTwo, swapFirstTwo,
                "delivered the second event before the first"},
    DeliveryRow{"event-two-at-once", Stream::event, firstTwo, handOverTwoAtOnce,
                "delivered the first two events at the same time"},
    DeliveryRow{"event-removal-too-early", Stream::event, lastDelivery, handOverLater, didKeep},
    DeliveryRow{"event-late", Stream::event, each, handOverLater, didKeep},
    DeliveryRow{"event-after-removal", Stream::event, lastDelivery, handOverAgainLater,
                didKeepCopy},
};

// ------------------------------------------------------------------- the chosen

// Empty: nothing is broken.
const std::string& chosenFault() {
    static const std::string chosen = [] {
        std::string name = environmentVariable("KAVRI_PROBE_FAULT");
        if (!name.empty() && !canBreak(name)) {
            giveUp("no fault \"" + name + "\"");
        }
        return name;
    }();
    return chosen;
}

// Says in the call what went before it, and remembers that it was made.
void place(Call& call) {
    static std::array<unsigned, functionCount> callsInProcess{};
    const auto function = static_cast<std::size_t>(call.function);
    const std::lock_guard lock(memoryMutex);
    if (call.function == Function::initiatorInit) {
        forget();
    }
    call.ordinal = ++memory.calls.at(function);
    call.ordinalInProcess = ++callsInProcess.at(function);
    call.responsesBefore = memory.responses;
    call.callbackInstalled = memory.callbackInstalled;
    call.countAsked = memory.countAsked;
    if (call.function == Function::commandSend) {
        memory.countAsked = std::string_view(call.sent[identifierText]) == "get_repeat_count";
    }
}

void noteSuccess(const Call& call) {
    const std::lock_guard lock(memoryMutex);
    if (call.function == Function::responseReceive) {
        ++memory.responses;
    } else if (call.function == Function::responseCallback) {
        memory.callbackInstalled = call.installs;
    }
}

const CallRow* rowFor(const Call& call) {
    const auto* row = std::ranges::find_if(callRows, [&call](const CallRow& candidate) {
        return candidate.fault == chosenFault() && candidate.function == call.function &&
               candidate.when(call);
    });
    return row != callRows.end() ? row : nullptr;
}

}  // namespace

bool canBreak(std::string_view fault) {
    const auto isOfFault = [fault](const auto& row) { return row.fault == fault; };
    return std::ranges::any_of(callRows, isOfFault) || std::ranges::any_of(deliveryRows, isOfFault);
}

kavri_core_status perform(Call& call) {
    if (chosenFault().empty()) {
        return call.forward(call);
    }
    place(call);
    const CallRow* row = rowFor(call);
    const bool isInstead = row != nullptr && row->instead != nullptr;
    if (isInstead) {
        recordFault(row->fault, call.number, row->did);
    }
    const kavri_core_status status = isInstead ? row->instead(call) : call.forward(call);
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return status;
    }
    noteSuccess(call);
    if (row == nullptr || row->after == nullptr) {
        return status;
    }
    recordFault(row->fault, call.number, row->did);
    return row->after(call);
}

void deliver(const Delivery& delivery) {
    const auto* row = std::ranges::find_if(deliveryRows, [&delivery](const DeliveryRow& candidate) {
        return candidate.fault == chosenFault() &&
               candidate.stream == delivery.installation->stream && candidate.when(delivery);
    });
    if (row == deliveryRows.end()) {
        handOver(delivery);
        return;
    }
    recordFault(row->fault, delivery.number, row->did);
    row->handle(delivery);
}

}  // namespace kavri::probe
