// How an endpoint reaches its broker, and what its program chose.
#ifndef KAVRI_CORE_ENDPOINT_SETTINGS_H
#define KAVRI_CORE_ENDPOINT_SETTINGS_H

#include <chrono>
#include <memory>
#include <string>

#include "core/logging.h"
#include "kavri/ipc.h"

namespace kavri::core {

struct Settings {
    std::string address;
    std::string role;
    std::string servedCategory;  // of a responder
    std::chrono::milliseconds connectTimeout{};
    std::chrono::milliseconds sendTimeout{};
    bool gatherWrites = false;  // of what a callback sends
    kavri_core_ipc_connection_callback connectionCallback = nullptr;
    void* connectionContext = nullptr;
    kavri_core_ipc_outcome_callback outcomeCallback = nullptr;  // of an initiator
    void* outcomeContext = nullptr;
    std::shared_ptr<Log> log;
};

// Reads the arguments of an init function. The status is NO_ERROR, or why they cannot be used.
kavri_core_status readSettings(kavri_core_logging_cookie cookie, const void* options,
                               Settings& settings);

}  // namespace kavri::core

#endif
