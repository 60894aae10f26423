// Every limit that can be configured: its name in the file and in the broker's report, the
// range that makes sense, and where it is kept.
#ifndef KAVRI_WIRE_LIMIT_SETTINGS_H
#define KAVRI_WIRE_LIMIT_SETTINGS_H

#include <array>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "wire/limits.h"

namespace kavri::wire {

struct LimitSetting {
    std::string_view name;
    std::int64_t least;
    std::int64_t most;
    void (*set)(Limits&, std::int64_t);
    std::int64_t (*get)(const Limits&);
};

template <auto member>
constexpr LimitSetting limitSetting(std::string_view name, std::int64_t least, std::int64_t most) {
    using Number = std::remove_cvref_t<decltype(Limits{}.*member)>;
    return {name, least, most,
            [](Limits& limits, std::int64_t value) { limits.*member = static_cast<Number>(value); },
            [](const Limits& limits) {
                if constexpr (std::is_integral_v<Number>) {
                    return static_cast<std::int64_t>(limits.*member);
                } else {
                    return static_cast<std::int64_t>((limits.*member).count());
                }
            }};
}

inline constexpr std::int64_t manyBytes = std::int64_t{1} << 40U;
inline constexpr std::int64_t manyThings = 1'000'000;
inline constexpr std::int64_t anHourMs = 3'600'000;

inline constexpr std::array limitSettings = {
    limitSetting<&Limits::payloadBytes>("payload_bytes", 1, payloadCeilingBytes),
    limitSetting<&Limits::connections>("connections", 1, manyThings),
    limitSetting<&Limits::connectionsPerUser>("connections_per_user", 1, manyThings),
    limitSetting<&Limits::sendQueueBytes>("send_queue_bytes", 65536, manyBytes),
    limitSetting<&Limits::bytesPerUser>("bytes_per_user", 65536, manyBytes),
    limitSetting<&Limits::drainBytesPerSecond>("drain_bytes_per_second", 1, manyBytes),
    limitSetting<&Limits::stallTime>("stall_ms", 0, anHourMs),
    limitSetting<&Limits::openRequestsPerInitiator>("open_requests_per_initiator", 1, manyThings),
    limitSetting<&Limits::openRequestsPerResponder>("open_requests_per_responder", 1, manyThings),
    limitSetting<&Limits::subscriptionsPerInitiator>("subscriptions_per_initiator", 0, manyThings),
    limitSetting<&Limits::handshakeTime>("handshake_ms", 1, anHourMs),
    limitSetting<&Limits::progressTime>("progress_ms", 1, anHourMs),
};

}  // namespace kavri::wire

#endif
