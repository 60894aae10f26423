// The library's callbacks, and the subscriptions; see event_source.h.
#include "terminal/event_source.h"

#include "terminal/outcome.h"

namespace kavri::terminal {

EventSource::EventSource(const Library& library, const std::string& socket,
                         const std::vector<std::string>& categories) {
    kavri_core_ipc_options options = optionsFor(socket);
    options.connectionCallback = connectionChanged;
    options.connectionContext = this;
    initiator_ = openInitiator(library, options);
    // First the callback: without one, events are dropped.
    check(kavri_core_ipc_initiator_event_receive_callback(initiator_.get(), eventArrived, this),
          options.brokerAddress);
    for (const std::string& category : categories) {
        check(kavri_core_ipc_initiator_event_subscribe(initiator_.get(), category.c_str()),
              options.brokerAddress);
    }
}

void EventSource::eventArrived(char** category, char** identifier, char** payload, void* self) {
    static_cast<EventSource*>(self)->messages_.put(Event{.when = std::chrono::system_clock::now(),
                                                         .category = adopt(*category),
                                                         .identifier = adopt(*identifier),
                                                         .payload = adopt(*payload)});
}

void EventSource::connectionChanged(const kavri_core_ipc_connection_change* change, void* self) {
    Mailbox<Message>& messages = static_cast<EventSource*>(self)->messages_;
    switch (change->event) {
        case KAVRI_CORE_IPC_CONNECTION_MADE:
            break;
        case KAVRI_CORE_IPC_CONNECTION_BROKEN:
        case KAVRI_CORE_IPC_CONNECTION_CLOSED_BY_BROKER:
            messages.put(ConnectionLost{});
            break;
        case KAVRI_CORE_IPC_CONNECTION_RESTORED:
            messages.put(ConnectionRestored{std::chrono::milliseconds(change->disconnectedMs)});
            break;
    }
}

}  // namespace kavri::terminal
