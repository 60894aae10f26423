// The requests of a responder, as many at a time as are being handled.
//
// The callback that takes them is installed only while there is room for another one, so the
// others wait in the library and, with its queue full, at the broker, whose flow control then
// has its effect on those who send.
#ifndef KAVRI_TERMINAL_SERVE_REQUEST_INBOX_H
#define KAVRI_TERMINAL_SERVE_REQUEST_INBOX_H

#include <kavri/ipc.h>

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

#include "terminal/mailbox.h"

namespace kavri::terminal {

struct Request {
    kavri_core_ipc_request name;
    std::string category;
    std::string identifier;
    std::string uuid;
    std::string payload;
};

class RequestInbox {
  public:
    // As many never wait for room in the mailbox.
    static constexpr unsigned mostAtOnce = Mailbox<Request>::capacity;

    // The responder ends before this, since its callback uses this.
    RequestInbox(kavri_core_ipc_responder* responder, std::size_t capacity)
        : responder_(responder), capacity_(capacity) {}

    // Readable while there are requests.
    int descriptor() const { return requests_.descriptor(); }
    std::deque<Request> take() { return requests_.take(); }

    // A request that was taken needs no room any more.
    void finished();
    // Has requests delivered where there is room; after each take, and in the beginning.
    void resume();

  private:
    static void requestArrived(kavri_core_ipc_request name, char** category, char** identifier,
                               char** uuid, char** payload, void* self);
    void put(Request request);

    kavri_core_ipc_responder* const responder_;
    const std::size_t capacity_;
    Mailbox<Request> requests_;
    std::mutex mutex_;  // never held while the library is called, which may wait for put
    std::size_t handled_ = 0;
    bool isInstalled_ = false;
};

}  // namespace kavri::terminal

#endif
