// What the parts of a link use together: the bus, and the broker around it.
#ifndef KAVRI_BROKER_LINK_LINK_LINE_H
#define KAVRI_BROKER_LINK_LINK_LINE_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "broker/link/bus.h"
#include "broker/link/envelope.h"
#include "broker/routing/router.h"
#include "broker/session/session.h"
#include "wire/limits.h"

namespace kavri::broker {

// What a transport has in transit at least while it waits for the bus, which is then what
// takes nothing: otherwise all would wait for that, as for something that goes on.
inline constexpr std::size_t whileWithoutRoom = 1;

struct LinkLine {
    // Published and not yet taken by the kernel: from here on, what is to cross waits in the
    // send queues.
    static constexpr std::size_t mostQueuedBytes = 1 * wire::mebibyte;
    // About what one message carries of small frames.
    static constexpr std::size_t messageBytes = 64 * wire::kibibyte;

    Bus& bus;
    Router& router;
    const BrokerIdentity identity;
    const std::string name;  // for those who look at other brokers' status
    const Clock::time_point& now;
    // A session without a socket. Its memory is charged to the payer's user, or, without a
    // payer, to that of the link. Null where there is no memory.
    std::function<Session*(Role, Transport&, Session* payer)> openSession;
    std::function<void(Session&, CloseCause, std::string_view reason)> closeSession;
    // Handles what came in for a session.
    std::function<void(Session&, char* bytes, std::size_t count)> receive;
    // Logs what happened, unless the same was logged too often lately.
    std::function<void(std::string_view what)> note;

    bool hasRoom() const { return bus.queuedBytes() < mostQueuedBytes; }
    std::size_t mostContentBytes() const {
        const std::size_t most = bus.connection().mostDataBytes;
        return most > envelopeBytes ? most - envelopeBytes : 0;
    }
};

}  // namespace kavri::broker

#endif
