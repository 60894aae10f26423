// Names for the cases and checks of the module: the catalogue lists by them which check
// must detect a fault.
#ifndef KAVRI_CONFORMANCE_FAULTS_MODULE_CHECKS_H
#define KAVRI_CONFORMANCE_FAULTS_MODULE_CHECKS_H

#include <array>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

#include "conformance/faults/fault_catalogue.h"

namespace kavri::conformance {

// The cases of the module, in its order.
inline constexpr std::string_view sendPass = "initiatorSend/initiatorSendPass";
inline constexpr std::string_view sendRepeat = "initiatorSend/initiatorSendRepeat";
inline constexpr std::string_view staticResponse = "initiatorSend/initiatorRepeatStaticResponse";
inline constexpr std::string_view echo = "initiatorSend/initiatorRepeatEcho";
inline constexpr std::string_view echoPolled = "initiatorSend/initiatorRepeatEchoNonBlocking";
inline constexpr std::string_view callback = "initiatorSend/initiatorRepeatCallback";
inline constexpr std::string_view refusal = "initiatorSend/initiatorFailReceiveWithCallback";
inline constexpr std::string_view events = "initiatorEvent/initiatorRepeatEventCallback";
inline constexpr std::array everyCase = {sendPass,   sendRepeat, staticResponse, echo,
                                         echoPolled, callback,   refusal,        events};
// Those that send requests, that receive responses, and that call the receive function.
inline constexpr std::array sendingCases = {sendPass,   sendRepeat, staticResponse, echo,
                                            echoPolled, callback,   events};
inline constexpr std::array receivingCases = {sendPass, sendRepeat, staticResponse, echo,
                                              echoPolled};
inline constexpr std::array callingReceiveCases = {sendPass, sendRepeat, staticResponse,
                                                   echo,     echoPolled, refusal};

// The checks, as the module prints them.
inline constexpr std::string_view isUp = "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_init()";
inline constexpr std::string_view isLogging =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_logging_init(\"ipcInitiatorTest\", &logCookie)";
inline constexpr std::string_view isInitiatorMade =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_init(logCookie, __null, &c)";
inline constexpr std::string_view isInitiatorThere = "c != __null";
inline constexpr std::string_view isSent = "KAVRI_CORE_STATUS_NO_ERROR == send(ident.c_str())";
inline constexpr std::string_view isIncrementSent =
    "KAVRI_CORE_STATUS_NO_ERROR == send(\"inc_repeat_count\")";
inline constexpr std::string_view isStaticSent =
    "KAVRI_CORE_STATUS_NO_ERROR == send(\"static_response\")";
inline constexpr std::string_view isEchoSent = "KAVRI_CORE_STATUS_NO_ERROR == send(\"echo\")";
inline constexpr std::string_view isEventSent = "KAVRI_CORE_STATUS_NO_ERROR == send(\"event\")";
inline constexpr std::string_view isClearSent =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_command_send(c, \"test\", "
    "\"clr_repeat_count\", \"0\", \" \")";
inline constexpr std::string_view isQuerySent =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_command_send(c, \"test\", "
    "\"get_repeat_count\", \"0\", \" \")";
inline constexpr std::string_view isCountReceived =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_response_receive(c, -1, &rcat, "
    "&rident, &ruuid, &rpayload)";
inline constexpr std::string_view isCountZero = "0 == getBrokerRepeatCount()";
inline constexpr std::string_view isCountLimit =
    "static_cast<int>(limit) == getBrokerRepeatCount()";
inline constexpr std::string_view isReceived = "KAVRI_CORE_STATUS_NO_ERROR == recv()";
inline constexpr std::string_view isWaitRefused = "KAVRI_CORE_STATUS_IPC_FAILED == recv()";
inline constexpr std::string_view isPollRefused = "KAVRI_CORE_STATUS_IPC_FAILED == recv(0)";
inline constexpr std::string_view isFoundInTime = "jj != 0";
inline constexpr std::string_view isStaticPayload = "string(\"my static payload\") == rpayload";
inline constexpr std::string_view isSamePayload = "payload == rpayload";
inline constexpr std::string_view isSameUuid = "uuid == ruuid";
inline constexpr std::string_view isCallbackInstalled =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_response_receive_callback(c, "
    "dummyInitiatorReceiveCallback, (void*)0x87654321)";
inline constexpr std::string_view isCallbackRemoved =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_response_receive_callback(c, __null, "
    "__null)";
inline constexpr std::string_view areAllDelivered = "limit == callbackCounter";
inline constexpr std::string_view isNextInOrder = "callbackCounter == u";
inline constexpr std::string_view isSubscribed =
    "KAVRI_CORE_STATUS_NO_ERROR == eventSubscribe(\"test\")";
inline constexpr std::string_view isUnsubscribed =
    "KAVRI_CORE_STATUS_NO_ERROR == eventUnsubscribe(\"test\")";
inline constexpr std::string_view isEventCallbackInstalled =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_event_receive_callback(c, "
    "dummyInitiatorEventReceiveCallback, (void*)0x12345678)";
inline constexpr std::string_view isEventCallbackRemoved =
    "KAVRI_CORE_STATUS_NO_ERROR == kavri_core_ipc_initiator_event_receive_callback(c, __null, "
    "__null)";
inline constexpr std::string_view areAllEventsDelivered = "limit == eventCounter";
inline constexpr std::string_view hasCategory = "targetCategory";
inline constexpr std::string_view hasIdentifier = "targetIdentifier";
inline constexpr std::string_view hasUuid = "uuid";
inline constexpr std::string_view hasPayload = "payload";
inline constexpr std::string_view isResponseContext = "context == (void*)0x87654321";
inline constexpr std::string_view isEventContext = "context == (void*)0x12345678";

inline constexpr std::string_view byTimeout = "timeout";
inline constexpr std::string_view byCrash = "crash";
inline constexpr std::string_view byRecord = "record";
inline constexpr std::string_view byStatusWarning = "warning: listed-status";
inline constexpr std::string_view byCookieWarning = "warning: cookie-stored";
inline constexpr std::string_view byReleaseWarning = "warning: released-at-the-end";
inline constexpr std::string_view byRefusalWarning = "warning: refused-stores-nothing";
inline constexpr std::string_view byOverlapWarning = "warning: one-callback-at-a-time";

// A case, and how it must fail.
struct InCase {
    std::string_view caseName;
    std::vector<std::string_view> hows;
};

inline std::vector<Kill> by(std::initializer_list<InCase> cases) {
    std::vector<Kill> kills;
    for (const InCase& inCase : cases) {
        for (const std::string_view how : inCase.hows) {
            kills.push_back({inCase.caseName, how});
        }
    }
    return kills;
}

// The same in all of these.
inline std::vector<Kill> byAll(std::span<const std::string_view> cases,
                               std::initializer_list<std::string_view> hows) {
    std::vector<Kill> kills;
    for (const std::string_view caseName : cases) {
        for (const std::string_view how : hows) {
            kills.push_back({caseName, how});
        }
    }
    return kills;
}

}  // namespace kavri::conformance

#endif
