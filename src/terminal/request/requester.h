// Requests of one initiator, and what became of each, by its uuid.
#ifndef KAVRI_TERMINAL_REQUEST_REQUESTER_H
#define KAVRI_TERMINAL_REQUEST_REQUESTER_H

#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "terminal/library.h"
#include "terminal/mailbox.h"

namespace kavri::terminal {

struct Response {
    std::string category;
    std::string identifier;
    std::optional<std::string> payload;
};

// A response, or the status of a request that gets none.
struct Arrival {
    std::chrono::steady_clock::time_point when;
    std::string uuid;
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;
    std::optional<Response> response;
};

class Requester {
  public:
    // Connecting, and a send that finds no room, wait for at most `sendTime`. Throws
    // CommandFailure.
    Requester(const Library& library, const std::string& socket,
              std::chrono::milliseconds sendTime);
    Requester(const Requester&) = delete;
    Requester& operator=(const Requester&) = delete;

    kavri_core_status send(const std::string& category, const std::string& command,
                           const std::string& uuid, const std::string& payload) {
        return kavri_core_ipc_initiator_command_send(
            initiator_.get(), category.c_str(), command.c_str(), uuid.c_str(), payload.c_str());
    }

    // Readable while there are arrivals.
    int descriptor() const { return arrivals_.descriptor(); }
    std::deque<Arrival> take() { return arrivals_.take(); }

  private:
    static void responseArrived(char** category, char** identifier, char** uuid, char** payload,
                                void* self);
    static void outcomeArrived(const char* uuid, kavri_core_status status, void* self);

    Mailbox<Arrival> arrivals_;
    Initiator initiator_;
    // Before the end of the initiator, also where this cannot be made.
    Mailbox<Arrival>::Closing closing_{arrivals_};
};

}  // namespace kavri::terminal

#endif
