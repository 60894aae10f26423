// Interposes between the conformance module and the core library under test.
//
// Loaded ahead of the library, it defines the twelve functions that the module calls.
// Each call is recorded, see record.h, and forwarded to the library, unless the chosen
// fault does something else. In place of the module's callbacks the library is given
// functions of the probe, see callbacks.h.
//
// No lock is held while the library or the module runs, and the probe has no thread of
// its own: everything happens on the threads of the module and of the library.
#include <kavri/ipc.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "conformance/agent/callbacks.h"
#include "conformance/agent/calls.h"
#include "conformance/agent/handed_over.h"
#include "conformance/agent/handles.h"
#include "conformance/agent/holding.h"
#include "conformance/agent/in_library.h"
#include "conformance/agent/peer_check.h"
#include "conformance/agent/record.h"
#include "conformance/faults/fault_injection.h"

namespace kavri::conformance {

namespace {

Json noArguments() {
    return Json::object();
}
Json nothingStored(kavri_core_status /*status*/) {
    return Json::object();
}
Json handleStored(bool isThere) {
    return {{"handle", isThere}};
}

Json ofInitiator(const kavri_core_ipc_initiator* initiator) {
    return {{"initiator", handleNumber(initiator)}};
}

// Makes a call of the module. `arguments` is recorded before it, `stored` with its
// status.
template <typename Arguments, typename Stored>
kavri_core_status make(Call& call, const Arguments& arguments, const Stored& stored) {
    if (isInLibrary) {
        return call.forward(call);
    }
    call.number = nextNumber();
    if (isRecording()) {
        recordCall(call.number, functionName(call.function), arguments());
    }
    kavri_core_status status{};
    {
        const InLibrary inLibrary(true);
        status = perform(call);
    }
    if (isRecording()) {
        Json result = {{"status", status}};
        result.update(stored(status));
        recordReturn(call.number, result);
    }
    return status;
}

Json callbackArguments(const kavri_core_ipc_initiator* initiator, bool installs,
                       const void* context) {
    Json result = ofInitiator(initiator);
    result["callback"] = installs ? Json("installed") : Json();
    result["context"] = pointerText(context);
    return result;
}

// A call that the library is to get with just these arguments.
template <typename Signature, typename... Arguments>
Call callOf(Function function, Arguments... arguments) {
    Call call;
    call.function = function;
    call.forward = [=](const Call&) { return real<Signature>(function)(arguments...); };
    return call;
}

// Installs or removes a callback of the module. The library is given `substitute` in its
// place.
template <typename Signature, typename Callback>
kavri_core_status setCallback(Function function, kavri_core_ipc_initiator* initiator,
                              Callback callback, void* context, Callback substitute) {
    Call call;
    call.function = function;
    call.installs = callback != nullptr;
    call.forward = [=](const Call& now) {
        const auto install = real<Signature>(function);
        // Where the call is the library's own the callback is too.
        if (now.number == 0 || callback == nullptr) {
            return install(initiator, callback, context);
        }
        return install(initiator, substitute, &addInstallation(initiator, callback, context));
    };
    return make(
        call, [&] { return callbackArguments(initiator, call.installs, context); }, nothingStored);
}

// Begins or ends a subscription.
template <typename Signature>
kavri_core_status callWithCategory(Function function, kavri_core_ipc_initiator* initiator,
                                   const char* category) {
    Call call = callOf<Signature>(function, initiator, category);
    return make(
        call,
        [&] {
            Json result = ofInitiator(initiator);
            result["category"] = shortened(category);
            return result;
        },
        nothingStored);
}

}  // namespace

}  // namespace kavri::conformance

using namespace kavri::conformance;

kavri_core_status kavri_core_init(void) {
    if (!isInLibrary) {
        noteHolding();
    }
    Call call = callOf<decltype(kavri_core_init)>(Function::coreInit);
    return make(call, noArguments, nothingStored);
}

kavri_core_status kavri_core_deinit(void) {
    Call call = callOf<decltype(kavri_core_deinit)>(Function::coreDeinit);
    const kavri_core_status status = make(call, noArguments, nothingStored);
    if (!isInLibrary) {
        const InLibrary inLibrary(true);
        checkPeerUnlessSeen();
        recordLeft();
    }
    return status;
}

kavri_core_status kavri_core_logging_init(const char* name, kavri_core_logging_cookie* cookie) {
    Call call = callOf<decltype(kavri_core_logging_init)>(Function::loggingInit, name, cookie);
    return make(
        call,
        [name] {
            return Json{{"name", shortened(name)}};
        },
        [cookie](kavri_core_status) {
            return handleStored(cookie != nullptr && *cookie != nullptr);
        });
}

kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie cookie) {
    Call call = callOf<decltype(kavri_core_logging_deinit)>(Function::loggingDeinit, cookie);
    return make(
        call,
        [cookie] {
            return Json{{"cookie", cookie != nullptr ? Json("opened") : Json()}};
        },
        nothingStored);
}

kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie cookie, void* options,
                                                kavri_core_ipc_initiator** initiator) {
    Call call = callOf<decltype(kavri_core_ipc_initiator_init)>(Function::initiatorInit, cookie,
                                                                options, initiator);
    return make(
        call,
        [options] {
            return Json{{"options", pointerText(options)}};
        },
        [initiator](kavri_core_status) {
            const bool isThere = initiator != nullptr && *initiator != nullptr;
            Json result = handleStored(isThere);
            if (isThere) {
                result["initiator"] = numberNewHandle(*initiator);
            }
            return result;
        });
}

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    Call call = callOf<decltype(kavri_core_ipc_deinit)>(Function::initiatorDeinit, initiator);
    return make(
        call, [initiator] { return ofInitiator(initiator); }, nothingStored);
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* targetCategory,
                                                        const char* targetIdentifier,
                                                        const char* uuid, const char* payload) {
    Call call;
    call.function = Function::commandSend;
    call.sent = {targetCategory, targetIdentifier, uuid, payload};
    call.forward = [initiator](const Call& now) {
        return real<decltype(kavri_core_ipc_initiator_command_send)>(Function::commandSend)(
            initiator, now.sent[0], now.sent[1], now.sent[2], now.sent[3]);
    };
    return make(
        call,
        [&] {
            return Json{{"initiator", handleNumber(initiator)},
                        {"targetCategory", shortened(targetCategory)},
                        {"targetIdentifier", shortened(targetIdentifier)},
                        {"uuid", shortened(uuid)},
                        {"payload", shortened(payload)}};
        },
        nothingStored);
}

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** targetCategory,
                                                            char** targetIdentifier, char** uuid,
                                                            char** payload) {
    Call call;
    call.function = Function::responseReceive;
    call.timeoutMs = timeout;
    call.received = {targetCategory, targetIdentifier, uuid, payload};
    call.forward = [initiator](const Call& now) {
        const kavri_core_status status = real<decltype(kavri_core_ipc_initiator_response_receive)>(
            Function::responseReceive)(initiator, now.timeoutMs, now.received[0], now.received[1],
                                       now.received[2], now.received[3]);
        char** const answered = now.received[uuidField];
        if (status == KAVRI_CORE_STATUS_NO_ERROR && answered != nullptr && *answered != nullptr) {
            notePeerSeen();
        }
        return status;
    };
    // A refused receive must leave the caller's variables alone. What it stores
    // nevertheless is recorded too, because the module then frees it.
    std::array<const char*, fieldCount> before{};
    std::ranges::transform(call.received, before.begin(),
                           [](char** held) { return held != nullptr ? *held : nullptr; });
    const auto stored = [&call, &before](kavri_core_status status) {
        if (status == KAVRI_CORE_STATUS_NO_ERROR) {
            checkStrings(call.number, call.received);
        }
        constexpr std::array<const char*, fieldCount> keys = {"targetCategory", "targetIdentifier",
                                                              "uuid", "payload"};
        Json result = Json::object();
        for (std::size_t i = 0; i < fieldCount; ++i) {
            char** held = call.received.at(i);
            if (held != nullptr &&
                (status == KAVRI_CORE_STATUS_NO_ERROR || *held != before.at(i))) {
                result[keys.at(i)] = shortened(*held);
            }
        }
        return result;
    };
    return make(
        call,
        [&] {
            Json result = ofInitiator(initiator);
            result["timeout"] = timeout;
            return result;
        },
        stored);
}

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context) {
    return setCallback<decltype(kavri_core_ipc_initiator_response_receive_callback)>(
        Function::responseCallback, initiator, callback, context, responseArrived);
}

kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator* initiator,
                                                           const char* category) {
    return callWithCategory<decltype(kavri_core_ipc_initiator_event_subscribe)>(
        Function::eventSubscribe, initiator, category);
}

kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(kavri_core_ipc_initiator* initiator,
                                                             const char* category) {
    return callWithCategory<decltype(kavri_core_ipc_initiator_event_unsubscribe)>(
        Function::eventUnsubscribe, initiator, category);
}

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    return setCallback<decltype(kavri_core_ipc_initiator_event_receive_callback)>(
        Function::eventCallback, initiator, callback, context, eventArrived);
}
