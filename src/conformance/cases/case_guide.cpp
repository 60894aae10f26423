// The texts and numbers themselves; see case_guide.h. After a change the test of the
// guide prints the chapter of docs/conformance.md that goes with it.
#include "conformance/cases/case_guide.h"

#include <algorithm>
#include <array>

namespace kavri::conformance {

namespace {

constexpr std::array guides = {
    CaseGuide{
        .name = "initiatorSend/initiatorSendPass",
        .proves =
            "A request that needs no answer is accepted, and the initiator can be used afterwards.",
        .procedure = "Sends the command \"initiator\", which the service need not know. Then sends "
                     "`get_repeat_count` and receives one response, without a limit of time.",
        .asserts = "Both sends and the receive return `KAVRI_CORE_STATUS_NO_ERROR`. What the "
                   "response holds is not asserted: it may be the answer to the first command.",
        .failures = "A send that returns an error, or waits for an answer. A receive that returns "
                    "the unanswered command as an error. An answer that does not come: the receive "
                    "then waits for ever. No service for the category \"test\".",
        .required = {.sends = 2, .responses = 1},
    },
    CaseGuide{
        .name = "initiatorSend/initiatorSendRepeat",
        .proves = "Requests that get no answer arrive, each once, and all of them before the query "
                  "that is sent after them.",
        .procedure =
            "Sends `clr_repeat_count`, then `get_repeat_count`, and receives the counter. "
            "Sends `inc_repeat_count` ten times, then `get_repeat_count`, and receives the "
            "counter.",
        .asserts =
            "All 13 sends and both receives return `KAVRI_CORE_STATUS_NO_ERROR`. The counter "
            "is 0, and 10 at the end.",
        .failures = "A request that is lost, doubled, or overtaken by the query. An answer to "
                    "`clr_repeat_count` or `inc_repeat_count`, which is then taken for the "
                    "counter. A response without a payload, which counts as -1. Another program "
                    "that uses the same service at the same time.",
        .required = {.sends = 13, .responses = 2},
    },
    CaseGuide{
        .name = "initiatorSend/initiatorRepeatStaticResponse",
        .proves = "The payload of a response comes from the service alone, its uuid from the "
                  "request alone.",
        .procedure = "Ten times: sends `static_response` with the number of the round, from 0, as "
                     "its uuid, receives the response without a limit of time, and frees its "
                     "strings.",
        .asserts =
            "Each send and receive returns `KAVRI_CORE_STATUS_NO_ERROR`. Each payload is \"my "
            "static payload\", each uuid that of the request.",
        .failures = "The request's payload in place of the service's. A payload that is cut or "
                    "changed. A uuid that is another's, such as that of a response left over or "
                    "doubled. A payload or uuid that is null, or a string that cannot be freed: "
                    "the module then crashes. A response that does not come: the receive waits for "
                    "ever.",
        .required = {.sends = 10, .responses = 10},
    },
    CaseGuide{
        .name = "initiatorSend/initiatorRepeatEcho",
        .proves = "What goes out comes back unchanged, each time anew.",
        .procedure = "Ten times: sends `echo` with a payload of its own, \"CLIENT:echo 0\" and so "
                     "on, and the number of the round as its uuid, receives the response without a "
                     "limit of time, and frees its strings.",
        .asserts = "Each send and receive returns `KAVRI_CORE_STATUS_NO_ERROR`. Each payload and "
                   "each uuid is that of the request.",
        .failures = "A payload that is cut, changed, or that of the round before. A uuid that is "
                    "another's, such as that of a response left over or doubled. A payload or uuid "
                    "that is null, or a string that cannot be freed: the module then crashes. A "
                    "response that does not come: the receive waits for ever.",
        .required = {.sends = 10, .responses = 10},
    },
    CaseGuide{
        .name = "initiatorSend/initiatorRepeatEchoNonBlocking",
        .proves = "A receive that does not wait takes nothing until the response is there, and "
                  "takes it then.",
        .procedure = "Ten times: sends `echo` with a payload and uuid of its own, then tries up to "
                     "five times to pause for 10 ms and receive with time-out 0. A response that "
                     "misses all five tries is not waited for.",
        .asserts = "Each send returns `KAVRI_CORE_STATUS_NO_ERROR`. One of the five receives does, "
                   "and its payload and uuid are those of the request.",
        .failures = "A response that takes longer than the five pauses, 50 ms together; it spoils "
                    "the next round as well. A receive that returns `KAVRI_CORE_STATUS_NO_ERROR` "
                    "although it took nothing, or never takes anything without waiting. A receive "
                    "that waits in spite of time-out 0. A payload or uuid that is another's, or "
                    "null.",
        .required = {.sends = 10, .responses = 10},
    },
    CaseGuide{
        .name = "initiatorSend/initiatorRepeatCallback",
        .proves = "Responses reach an installed callback, each once and in the order of the "
                  "requests, with the context it was installed with.",
        .procedure = "Installs a response callback with the context 0x87654321. Sends "
                     "`static_response` ten times, with the uuids 0 to 9. Waits for one second, "
                     "whatever comes. Removes the callback, then looks at the number of calls.",
        .asserts = "Installation, sends and removal return `KAVRI_CORE_STATUS_NO_ERROR`. In each "
                   "call the four pointers are not null, the context is that of the installation, "
                   "and the uuid is the number of calls before. There were ten calls.",
        .failures = "A response that is lost, doubled, out of order, or later than the second. A "
                    "context that is lost or another's. A response that stays with the receive "
                    "functions. A removal that waits for ever. A string that is null where it must "
                    "not be, or cannot be freed: the module then crashes.",
        .required = {.sends = 10, .responseInstalls = 2, .responseDeliveries = 10},
    },
    CaseGuide{
        .name = "initiatorSend/initiatorFailReceiveWithCallback",
        .proves = "While a callback is installed every receive is refused, whatever its time-out.",
        .procedure = "Installs a response callback. Receives without a limit of time, then with "
                     "time-out 0. Removes the callback. Nothing is sent, so there is no response.",
        .asserts = "Installation and removal return `KAVRI_CORE_STATUS_NO_ERROR`, both receives "
                   "`KAVRI_CORE_STATUS_IPC_FAILED`.",
        .failures = "A receive that waits, which it then does for ever. A receive that returns "
                    "another status, such as that of no message. A refusal that also removes the "
                    "callback, so that its removal is an error.",
        .required = {.refusedReceives = 2, .responseInstalls = 2},
    },
    CaseGuide{
        .name = "initiatorEvent/initiatorRepeatEventCallback",
        .proves = "Each event of a category reaches the callback of a subscriber exactly once.",
        .procedure =
            "Subscribes to \"test\", pauses for 10 ms, and installs an event callback with "
            "the context 0x12345678. Sends the command `event` ten times. Waits for one "
            "second, whatever comes. Removes the callback, looks at the number of calls, "
            "and ends the subscription.",
        .asserts = "Subscribing, installation, sends, removal and unsubscribing return "
                   "`KAVRI_CORE_STATUS_NO_ERROR`. In each call the three pointers are not null and "
                   "the context is that of the installation. There were ten calls.",
        .failures =
            "An event that is lost, doubled, or later than the second. A subscription that is not "
            "yet in effect 10 ms after the call. A context that is lost or another's. Another "
            "program that has the same service publish at the same time. A removal that waits for "
            "ever. A string that cannot be freed: the module then crashes.",
        .required = {.sends = 10,
                     .subscribes = 1,
                     .unsubscribes = 1,
                     .eventInstalls = 2,
                     .eventDeliveries = 10},
    },
};

}  // namespace

std::span<const CaseGuide> caseGuides() {
    return guides;
}

std::vector<std::string> namesOfCases() {
    std::vector<std::string> names;
    for (const CaseGuide& guide : guides) {
        names.emplace_back(guide.name);
        names.emplace_back(guide.bareName());
    }
    return names;
}

const CaseGuide* findCaseGuide(std::string_view name) {
    const auto* const found = std::ranges::find_if(guides, [&](const CaseGuide& guide) {
        return name == guide.name || name == guide.bareName();
    });
    return found == guides.end() ? nullptr : found;
}

}  // namespace kavri::conformance
