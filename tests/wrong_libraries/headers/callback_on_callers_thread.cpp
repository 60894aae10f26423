// Delivers events on the thread of the caller, in the removal of the callback.
#include <mutex>
#include <vector>

#include "wrong_libraries/good_library.h"

namespace {

struct Event {
    char* category;
    char* identifier;
    char* payload;
};

EventCallback installed;
std::mutex mutex;
std::vector<Event> kept;

void keep(char** category, char** identifier, char** payload, void* /*context*/) {
    const std::lock_guard lock(mutex);
    kept.push_back({*category, *identifier, *payload});
}

}  // namespace

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (callback != nullptr) {
        installed = {callback, context};
        return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, keep, nullptr);
    }
    const kavri_core_status status =
        GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, nullptr, nullptr);
    for (Event& event : kept) {
        installed.call(&event.category, &event.identifier, &event.payload, installed.context);
    }
    kept.clear();
    return status;
}
