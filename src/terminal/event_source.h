// The events of some categories, as messages for the thread that takes them.
//
// Between them stands each time that the connection came back: events published before were
// missed. That it is gone is in the library's log at once.
#ifndef KAVRI_TERMINAL_EVENT_SOURCE_H
#define KAVRI_TERMINAL_EVENT_SOURCE_H

#include <chrono>
#include <string>
#include <variant>
#include <vector>

#include "terminal/library.h"
#include "terminal/mailbox.h"

namespace kavri::terminal {

struct Event {
    std::chrono::system_clock::time_point when;
    std::string category;
    std::string identifier;
    std::string payload;
};

struct ConnectionLost {};
struct ConnectionRestored {
    std::chrono::milliseconds after;
};

class EventSource {
  public:
    using Message = std::variant<Event, ConnectionLost, ConnectionRestored>;

    // Subscribed to all of them on return. Throws CommandFailure.
    EventSource(const Library& library, const std::string& socket,
                const std::vector<std::string>& categories);
    EventSource(const EventSource&) = delete;
    EventSource& operator=(const EventSource&) = delete;

    // Readable while there are messages.
    int descriptor() const { return messages_.descriptor(); }
    std::deque<Message> take() { return messages_.take(); }

  private:
    static void eventArrived(char** category, char** identifier, char** payload, void* self);
    static void connectionChanged(const kavri_core_ipc_connection_change* change, void* self);

    Mailbox<Message> messages_;
    Initiator initiator_;
    // Before the end of the initiator, also where this cannot be made.
    Mailbox<Message>::Closing closing_{messages_};
};

}  // namespace kavri::terminal

#endif
