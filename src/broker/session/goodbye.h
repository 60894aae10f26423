// The frame that says why the broker closes a connection.
#ifndef KAVRI_BROKER_SESSION_GOODBYE_H
#define KAVRI_BROKER_SESSION_GOODBYE_H

#include <string_view>

#include "wire/frame.h"

namespace kavri::broker {

// The frame points into `reason`.
inline wire::Frame goodbyeFrame(kavri_core_status status, std::string_view reason) {
    wire::Frame frame;
    frame.type = wire::FrameType::goodbye;
    frame.status = static_cast<std::uint16_t>(status);
    frame[wire::Field::payload] = reason;
    return frame;
}

}  // namespace kavri::broker

#endif
