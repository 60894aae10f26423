// What the handling of a frame may come to: its sender is blocked, since the session
// that the frame goes to is congested (flow/flow_control.h). The frame stays with its
// sender, which is not read from until it is resumed. Nothing: the frame was handled.
#ifndef KAVRI_BROKER_ROUTING_BLOCKED_H
#define KAVRI_BROKER_ROUTING_BLOCKED_H

#include <optional>

namespace kavri::broker {

struct Session;

struct Blocked {
    Session& on;
};

}  // namespace kavri::broker

#endif
