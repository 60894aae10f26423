// Where the broker is: the one rule that the library, the broker and the
// programs around them share.
#ifndef KAVRI_INTERFACES_ADDRESS_H
#define KAVRI_INTERFACES_ADDRESS_H

#include <optional>
#include <string>
#include <string_view>

namespace kavri::interfaces {

// `chosen` where it is not empty; else the environment variable KAVRI_BROKER;
// else $XDG_RUNTIME_DIR/kavri/broker.sock where that folder exists; else
// /run/kavri/broker.sock.
std::string brokerAddress(std::string_view chosen);

// Why a path cannot be a socket's, in words; nothing where it can.
std::optional<std::string> addressError(std::string_view path);

}  // namespace kavri::interfaces

#endif
