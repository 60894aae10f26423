// The address of the broker: one rule for the library, the broker and the
// programs around them.
#ifndef KAVRI_WIRE_ADDRESS_H
#define KAVRI_WIRE_ADDRESS_H

#include <optional>
#include <string>
#include <string_view>

namespace kavri::wire {

// `chosen` where it is not empty; else the environment variable KAVRI_BROKER;
// else $XDG_RUNTIME_DIR/kavri/broker.sock where that folder exists; else
// /run/kavri/broker.sock.
std::string brokerAddress(std::string_view chosen);

// Why a path cannot be that of a socket, in words; nothing where it can be.
std::optional<std::string> addressError(std::string_view path);

}  // namespace kavri::wire

#endif
