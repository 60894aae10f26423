// Finding the library under test; see functions.h.
#include "conformance/agent/functions.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "conformance/agent/record.h"

namespace kavri::conformance {

namespace {

constexpr std::array<const char*, functionCount> names = {
    "kavri_core_init",
    "kavri_core_deinit",
    "kavri_core_logging_init",
    "kavri_core_logging_deinit",
    "kavri_core_ipc_initiator_init",
    "kavri_core_ipc_deinit",
    "kavri_core_ipc_initiator_command_send",
    "kavri_core_ipc_initiator_response_receive",
    "kavri_core_ipc_initiator_response_receive_callback",
    "kavri_core_ipc_initiator_event_subscribe",
    "kavri_core_ipc_initiator_event_unsubscribe",
    "kavri_core_ipc_initiator_event_receive_callback",
};

constexpr int couldNotRun = 3;

}  // namespace

const char* functionName(Function function) {
    return names.at(static_cast<std::size_t>(function));
}

void giveUp(const std::string& why) {
    const std::string line = "kavri-probe: " + why + "\n";
    static_cast<void>(!write(STDERR_FILENO, line.data(), line.size()));
    endProcess(couldNotRun);
}

void* functionBehind(Function function) {
    static std::array<std::atomic<void*>, functionCount> found;
    std::atomic<void*>& place = found.at(static_cast<std::size_t>(function));
    void* address = place.load();
    if (address == nullptr) {
        address = dlsym(RTLD_NEXT, functionName(function));
        place.store(address);
    }
    if (address == nullptr) {
        giveUp(std::string("the library has no ") + functionName(function));
    }
    return address;
}

}  // namespace kavri::conformance
