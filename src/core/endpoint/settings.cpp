// The options of an init function; see settings.h.
#include "core/endpoint/settings.h"

#include <cstddef>
#include <cstring>

#include "core/lifecycle.h"
#include "wire/address.h"
#include "wire/limits.h"

namespace kavri::core {

namespace {

// The options of a program built before there was a connection callback, and before there was
// an outcome callback.
constexpr std::size_t smallestOptionsBytes = offsetof(kavri_core_ipc_options, connectionCallback);
constexpr std::size_t smallerOptionsBytes = offsetof(kavri_core_ipc_options, outcomeCallback);

// How many of these bytes are whole members that this version knows.
std::size_t knownBytes(std::size_t sizeBytes) {
    return sizeBytes >= sizeof(kavri_core_ipc_options) ? sizeof(kavri_core_ipc_options)
           : sizeBytes >= smallerOptionsBytes          ? smallerOptionsBytes
                                                       : smallestOptionsBytes;
}

// A context belongs to a callback.
template <typename Callback>
bool isStrayContext(Callback callback, const void* context) {
    return callback == nullptr && context != nullptr;
}

}  // namespace

kavri_core_status readSettings(kavri_core_logging_cookie cookie, const void* options,
                               Settings& settings) {
    if (!isInitialised()) {
        return KAVRI_CORE_STATUS_NOT_INITIALISED;
    }
    kavri_core_ipc_options given{};
    if (options != nullptr) {
        const auto* chosen = static_cast<const kavri_core_ipc_options*>(options);
        if (chosen->sizeBytes < smallestOptionsBytes) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
        std::memcpy(&given, chosen, knownBytes(chosen->sizeBytes));
        if (isStrayContext(given.connectionCallback, given.connectionContext) ||
            isStrayContext(given.outcomeCallback, given.outcomeContext)) {
            return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
        }
    }
    settings.log = cookie != nullptr ? cookie->log : std::make_shared<Log>("kavri");
    if (given.brokerAddress != nullptr && *given.brokerAddress == '\0') {
        settings.log->info({"the broker's address in the options is empty"});
        return KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID;
    }
    settings.address =
        wire::brokerAddress(given.brokerAddress != nullptr ? given.brokerAddress : "");
    if (const auto error = wire::addressError(settings.address)) {
        settings.log->info({"cannot use the broker's address: ", *error});
        return KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID;
    }
    const auto orDefault = [](unsigned chosen, unsigned otherwise) {
        return std::chrono::milliseconds(chosen != 0 ? chosen : otherwise);
    };
    settings.connectTimeout = orDefault(given.connectTimeoutMs, wire::defaultConnectTimeoutMs);
    settings.sendTimeout = orDefault(given.sendTimeoutMs, wire::defaultSendTimeoutMs);
    settings.gatherWrites = given.gatherWrites != 0;
    settings.connectionCallback = given.connectionCallback;
    settings.connectionContext = given.connectionContext;
    settings.outcomeCallback = given.outcomeCallback;
    settings.outcomeContext = given.outcomeContext;
    return KAVRI_CORE_STATUS_NO_ERROR;
}

}  // namespace kavri::core
