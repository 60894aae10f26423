// Services and subscribers on other machines, as the router sees them.
#ifndef KAVRI_BROKER_ROUTING_REMOTE_SERVICES_H
#define KAVRI_BROKER_ROUTING_REMOTE_SERVICES_H

#include <cstddef>
#include <string_view>
#include <variant>

#include "kavri/core.h"
#include "wire/lines.h"

namespace kavri::broker {

struct Category;
using wire::Lines;
struct Session;

class RemoteServices {
  public:
    RemoteServices() = default;
    RemoteServices(const RemoteServices&) = delete;
    RemoteServices& operator=(const RemoteServices&) = delete;

    // A session that takes the initiator's requests to the category to one responder on
    // another machine, for as long as that lives; or why there is none. What becomes of
    // requests when it ends is in ResponderSide::lost.
    using Found = std::variant<Session*, kavri_core_status>;
    virtual Found responderFor(Session& initiator, std::string_view category) = 0;
    // The initiator is gone, or its responder of before is not used any more.
    virtual void release(Session& responder) = 0;
    // Of a frame that crosses.
    virtual std::size_t mostFrameBytes() const = 0;

    // The category got a responder, or lost it.
    virtual void serviceChanged(const Category& category) = 0;
    // The category got a subscriber or lost one. It is removed after the last.
    virtual void subscribersChanged(Category& category) = 0;

    // For reports. Returns the server's address, or why there is no connection to one; valid
    // until something changes.
    virtual std::string_view describe(Lines& lines) const = 0;

  protected:
    ~RemoteServices() = default;
};

}  // namespace kavri::broker

#endif
