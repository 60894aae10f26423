// Publishing, and knowing that it was done; see publish.h.
//
// The broker acknowledges no event, and a program that ends may have written what a broker
// that ends does not read. So the command subscribes to its own category: the event has
// reached all subscribers once it comes back.
#include "terminal/publish.h"

#include <poll.h>

#include <chrono>
#include <cstdlib>

#include "terminal/event_source.h"
#include "terminal/library.h"
#include "terminal/outcome.h"
#include "terminal/payload.h"

namespace kavri::terminal {

namespace {

constexpr std::chrono::milliseconds confirmationTime{10'000};

using Clock = std::chrono::steady_clock;

[[noreturn]] void failUnknown(const std::string& reason) {
    throw process::CommandFailure(process::ExitStatus::unknown,
                                  "whether the event was published is unknown: " + reason);
}

// Without the event: nobody else may publish in the category, so the first is the one.
bool isConfirmed(EventSource& events) {
    for (const EventSource::Message& message : events.take()) {
        if (std::holds_alternative<Event>(message)) {
            return true;
        }
        failUnknown("the connection to the broker was lost");
    }
    return false;
}

void awaitConfirmation(EventSource& events) {
    const Clock::time_point deadline = Clock::now() + confirmationTime;
    while (!isConfirmed(events)) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            failUnknown("the broker did not pass it on within 10 s");
        }
        pollfd source = {events.descriptor(), POLLIN, 0};
        poll(&source, 1, static_cast<int>(left.count()));
    }
}

// Nothing is there to answer a request that comes meanwhile: its sender is not to wait.
void endRequest(kavri_core_ipc_request request, char** category, char** identifier, char** uuid,
                char** payload, void* responder) {
    for (char** field : {category, identifier, uuid, payload}) {
        std::free(*field);
    }
    kavri_core_ipc_responder_request_end(static_cast<kavri_core_ipc_responder*>(responder),
                                         request);
}

}  // namespace

process::ExitStatus runPublish(const PublishOptions& options) {
    const std::string payload = readPayload(options.payload);
    const Library library("kavri publish");
    const kavri_core_ipc_options connection = optionsFor(options.socket);
    const Responder responder = openResponder(library, connection, options.category);
    check(kavri_core_ipc_responder_request_receive_callback(responder.get(), endRequest,
                                                            responder.get()),
          connection.brokerAddress);
    EventSource events(library, options.socket, {options.category});
    check(kavri_core_ipc_responder_event_publish(responder.get(), options.category.c_str(),
                                                 options.identifier.c_str(), payload.c_str()),
          connection.brokerAddress);
    awaitConfirmation(events);
    return process::ExitStatus::passed;
}

}  // namespace kavri::terminal
