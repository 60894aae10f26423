// What a monitor has asked for: which of what passes it wants to see, how much of each
// payload, and how many observations were lost since the last report of losses.
#ifndef KAVRI_BROKER_SESSION_MONITOR_H
#define KAVRI_BROKER_SESSION_MONITOR_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "broker/memory/account.h"
#include "wire/frame.h"

namespace kavri::broker {

struct Session;

struct Monitor {
    // The most of a payload that is shown, however much is asked for.
    static constexpr std::size_t mostPayloadBytes = 4096;

    // Each that is set must hold; those of a peer must hold for the same one.
    std::optional<std::string> category;
    std::optional<pid_t> process;
    std::optional<uid_t> user;
    std::optional<std::uint64_t> connection;

    std::size_t payloadBytes = 0;  // of each payload
    std::uint64_t lost = 0;
    Charge charge;

    // From a monitor frame; nothing where one of its lines is no option.
    static std::optional<Monitor> asked(const wire::Frame& frame);

    bool wantsEveryPeer() const { return !process && !user && !connection; }
    bool wants(const Session& peer) const;
};

}  // namespace kavri::broker

#endif
