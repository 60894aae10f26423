// What a session has in place of a socket, where its program is on another machine.
#ifndef KAVRI_BROKER_SESSION_TRANSPORT_H
#define KAVRI_BROKER_SESSION_TRANSPORT_H

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

#include "wire/lines.h"

struct iovec;  // memory, as a send queue hands it out

namespace kavri::broker {

using wire::Lines;

class Transport {
  public:
    Transport() = default;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    // Takes frames from the front of a send queue, each whole or not at all; returns their
    // bytes. While it has no room it takes none, and asks for another write when it has.
    virtual std::size_t send(std::span<const iovec> pieces) = 0;
    // Sent, and not taken by the other side yet.
    virtual std::size_t bytesInTransit() const = 0;
    // Whether requests to the category may come in over it.
    virtual bool mayRequest(std::string_view category) const = 0;
    // Whether what comes in may be handled now: not while the session is blocked.
    virtual void watchInput(bool isWanted) = 0;
    // The session is gone from every table; the transport is not used any more.
    virtual void end() = 0;

    // For reports: what crosses here, of which category alone if of one, and to or from whom.
    virtual std::optional<std::string_view> categoryCarried() const = 0;
    virtual void describe(Lines& lines) const = 0;

  protected:
    ~Transport() = default;
};

}  // namespace kavri::broker

#endif
