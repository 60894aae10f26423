// Interposes between the conformance module and the core library under test.
//
// Loaded ahead of the library, it defines the twelve functions that the module calls.
// Each call is recorded, see record.h, and forwarded to the library, unless the chosen
// fault does something else. In place of the module's callbacks the library is given
// functions of the probe, so that deliveries can be recorded and broken too.
//
// No lock is held while the library or the module runs, and the probe has no thread of
// its own: everything happens on the threads of the module and of the library.
#include <kavri/ipc.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <string>

#include "conformance/agent/calls.h"
#include "conformance/agent/handed_over.h"
#include "conformance/agent/handles.h"
#include "conformance/agent/holding.h"
#include "conformance/agent/peer_check.h"
#include "conformance/agent/record.h"
#include "conformance/faults/fault_injection.h"

namespace kavri::conformance {

namespace {

// A library may call its own functions, which leads here too. Such a call is not the
// module's, and is forwarded unchanged.
thread_local bool isInLibrary = false;

class InLibrary {
  public:
    explicit InLibrary(bool is) : before_(isInLibrary) { isInLibrary = is; }
    InLibrary(const InLibrary&) = delete;
    InLibrary& operator=(const InLibrary&) = delete;
    ~InLibrary() { isInLibrary = before_; }

  private:
    bool before_;
};

Json pointerText(const void* pointer) {
    std::ostringstream stream;
    stream << "0x" << std::hex << reinterpret_cast<std::uintptr_t>(pointer);
    return stream.str();
}

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

Json deliveryArguments(const Delivery& delivery) {
    const auto text = [&delivery](Field field) {
        char** argument = delivery.fields.at(field);
        return argument != nullptr ? shortened(*argument) : Json();
    };
    Json result = {{"initiator", handleNumber(delivery.installation->initiator)},
                   {"targetCategory", text(categoryField)},
                   {"targetIdentifier", text(identifierField)}};
    if (delivery.installation->stream == Stream::response) {
        result["uuid"] = text(uuidField);
    }
    result["payload"] = text(payloadField);
    result["context"] = pointerText(delivery.context);
    return result;
}

void callModule(const Delivery& delivery) {
    const Installation& installation = *delivery.installation;
    const bool isResponse = installation.stream == Stream::response;
    if (isRecording()) {
        recordDeliver(delivery.number, isResponse ? "response" : "event",
                      deliveryArguments(delivery));
        checkStrings(delivery.number, delivery.fields);
        if (delivery.ordinal == 1) {
            checkSignals(delivery.number);
        }
    }
    if (delivery.together != nullptr) {
        delivery.together->arrive_and_wait();
    }
    {
        const InLibrary inLibrary(false);
        const auto& [first, second, third, last] = delivery.fields;
        if (isResponse) {
            installation.responseCallback(first, second, third, last, delivery.context);
        } else {
            installation.eventCallback(first, second, last, delivery.context);
        }
    }
    recordDelivered(delivery.number);
}

// All that were made. Never destroyed: a callback may still run when the process' statics end.
class Installations {
  public:
    static Installations& all() {
        static auto& installations = *new Installations;
        return installations;
    }

    // `describe` sets the stream and the callback.
    template <typename Describe>
    Installation& add(void* context, const Describe& describe) {
        const std::lock_guard lock(mutex_);
        Installation& installation = installations_.emplace_back();
        installation.context = context;
        describe(installation);
        return installation;
    }

    // The one that a library names as the context; with a context that is none of these,
    // the latest one.
    Installation& find(Stream stream, const void* context) {
        const std::lock_guard lock(mutex_);
        Installation* latest = nullptr;
        for (Installation& each : installations_) {
            if (&each == context) {
                return each;
            }
            latest = each.stream == stream ? &each : latest;
        }
        return *latest;
    }

  private:
    std::mutex mutex_;
    std::deque<Installation> installations_;
};

void arrived(Stream stream, const std::array<char**, fieldCount>& fields, void* context) {
    notePeerSeen();
    Installation& installation = Installations::all().find(stream, context);
    Delivery delivery;
    delivery.forward = callModule;
    delivery.installation = &installation;
    delivery.fields = fields;
    delivery.context = context == &installation ? installation.context : context;
    delivery.number = nextNumber();
    delivery.ordinal = ++installation.deliveries;
    deliver(delivery);
}

void responseArrived(char** targetCategory, char** targetIdentifier, char** uuid, char** payload,
                     void* context) {
    arrived(Stream::response, {targetCategory, targetIdentifier, uuid, payload}, context);
}

void eventArrived(char** targetCategory, char** targetIdentifier, char** payload, void* context) {
    arrived(Stream::event, {targetCategory, targetIdentifier, nullptr, payload}, context);
}

Json callbackArguments(const kavri_core_ipc_initiator* initiator, bool installs,
                       const void* context) {
    Json result = ofInitiator(initiator);
    result["callback"] = installs ? Json("installed") : Json();
    result["context"] = context != nullptr ? pointerText(context) : Json();
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
// place; `describe` sets the stream and callback of the installation.
template <typename Signature, typename Callback, typename Describe>
kavri_core_status setCallback(Function function, kavri_core_ipc_initiator* initiator,
                              Callback callback, void* context, Callback substitute,
                              const Describe& describe) {
    Call call;
    call.function = function;
    call.installs = callback != nullptr;
    call.forward = [=](const Call& now) {
        const auto install = real<Signature>(function);
        // Where the call is the library's own the callback is too.
        if (now.number == 0 || callback == nullptr) {
            return install(initiator, callback, context);
        }
        Installation& installation = Installations::all().add(context, describe);
        installation.initiator = initiator;
        return install(initiator, substitute, &installation);
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
            return Json{{"options", options != nullptr ? pointerText(options) : Json()}};
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
        Function::responseCallback, initiator, callback, context, responseArrived,
        [callback](Installation& made) {
            made.stream = Stream::response;
            made.responseCallback = callback;
        });
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
        Function::eventCallback, initiator, callback, context, eventArrived,
        [callback](Installation& made) {
            made.stream = Stream::event;
            made.eventCallback = callback;
        });
}
