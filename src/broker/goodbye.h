// The frame that says why the broker closes a connection.
#ifndef KAVRI_BROKER_GOODBYE_H
#define KAVRI_BROKER_GOODBYE_H

#include <string_view>

#include "interfaces/frame.h"

namespace kavri::broker {

// The frame points into `reason`.
inline interfaces::Frame goodbyeFrame(kavri_core_status status, std::string_view reason) {
    interfaces::Frame frame;
    frame.type = interfaces::FrameType::goodbye;
    frame.status = static_cast<std::uint16_t>(status);
    frame[interfaces::Field::payload] = reason;
    return frame;
}

}  // namespace kavri::broker

#endif
