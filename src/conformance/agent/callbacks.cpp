// Recording deliveries and passing them on; see callbacks.h.
#include "conformance/agent/callbacks.h"

#include <array>
#include <deque>
#include <mutex>

#include "conformance/agent/handed_over.h"
#include "conformance/agent/handles.h"
#include "conformance/agent/in_library.h"
#include "conformance/agent/peer_check.h"
#include "conformance/agent/record.h"
#include "conformance/faults/fault_injection.h"

namespace kavri::conformance {

namespace {

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

    template <typename Callback>
    Installation& add(Stream stream, const void* initiator, Callback Installation::*member,
                      Callback callback, void* context) {
        const std::lock_guard lock(mutex_);
        Installation& installation = installations_.emplace_back();
        installation.stream = stream;
        installation.initiator = initiator;
        installation.*member = callback;
        installation.context = context;
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

}  // namespace

Installation& addInstallation(const void* initiator,
                              kavri_core_ipc_initiator_response_callback callback, void* context) {
    return Installations::all().add(Stream::response, initiator, &Installation::responseCallback,
                                    callback, context);
}

Installation& addInstallation(const void* initiator,
                              kavri_core_ipc_initiator_event_callback callback, void* context) {
    return Installations::all().add(Stream::event, initiator, &Installation::eventCallback,
                                    callback, context);
}

void responseArrived(char** targetCategory, char** targetIdentifier, char** uuid, char** payload,
                     void* context) {
    arrived(Stream::response, {targetCategory, targetIdentifier, uuid, payload}, context);
}

void eventArrived(char** targetCategory, char** targetIdentifier, char** payload, void* context) {
    arrived(Stream::event, {targetCategory, targetIdentifier, nullptr, payload}, context);
}

}  // namespace kavri::conformance
