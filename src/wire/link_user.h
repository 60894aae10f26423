// The user that stands for all who come over the link from other machines.
#ifndef KAVRI_WIRE_LINK_USER_H
#define KAVRI_WIRE_LINK_USER_H

#include <sys/types.h>

#include <string_view>

namespace kavri::wire {

// The kernel gives this number to nobody; the one above it means "no user".
inline constexpr uid_t linkUser = static_cast<uid_t>(-2);
inline constexpr std::string_view linkUserName = "@link";

}  // namespace kavri::wire

#endif
