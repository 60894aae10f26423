// Keeps ten events, and delivers them at the same time, each on a thread of its own.
#include <barrier>
#include <thread>
#include <vector>

#include "wrong_libraries/good_library.h"

namespace {

constexpr int atOnce = 10;

struct Event {
    char* category;
    char* identifier;
    char* payload;
};

EventCallback installed;
std::vector<Event> kept;
std::barrier together(atOnce);

void deliver(Event event) {
    together.arrive_and_wait();
    installed.call(&event.category, &event.identifier, &event.payload, installed.context);
}

void arrived(char** category, char** identifier, char** payload, void* /*context*/) {
    kept.push_back({*category, *identifier, *payload});
    if (kept.size() < atOnce) {
        return;
    }
    std::vector<std::thread> threads;
    for (const Event& event : kept) {
        threads.emplace_back(deliver, event);
    }
    kept.clear();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (callback == nullptr) {
        return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, nullptr, nullptr);
    }
    installed = {callback, context};
    return GOOD(kavri_core_ipc_initiator_event_receive_callback)(initiator, arrived, nullptr);
}
