// Installing and removing the callback; see request_inbox.h.
#include "terminal/serve/request_inbox.h"

#include "terminal/library.h"

namespace kavri::terminal {

void RequestInbox::finished() {
    const std::lock_guard lock(mutex_);
    --handled_;
}

void RequestInbox::resume() {
    {
        const std::lock_guard lock(mutex_);
        if (isInstalled_ || handled_ >= capacity_) {
            return;
        }
        isInstalled_ = true;
    }
    kavri_core_ipc_responder_request_receive_callback(responder_, requestArrived, this);
}

void RequestInbox::requestArrived(kavri_core_ipc_request name, char** category, char** identifier,
                                  char** uuid, char** payload, void* self) {
    static_cast<RequestInbox*>(self)->put({.name = name,
                                           .category = adopt(*category),
                                           .identifier = adopt(*identifier),
                                           .uuid = adopt(*uuid),
                                           .payload = adopt(*payload)});
}

// On the library's thread. Removed from within a call, the callback is not called again. The
// last request is passed on after that, so that resume finds it removed.
void RequestInbox::put(Request request) {
    bool isLast = false;
    {
        const std::lock_guard lock(mutex_);
        isLast = ++handled_ >= capacity_;
    }
    if (isLast) {
        kavri_core_ipc_responder_request_receive_callback(responder_, nullptr, nullptr);
        const std::lock_guard lock(mutex_);
        isInstalled_ = false;
    }
    requests_.put(std::move(request));
}

}  // namespace kavri::terminal
