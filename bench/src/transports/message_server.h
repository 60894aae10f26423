// nats-server for a measurement: one, or two that are joined, as on two machines.
#ifndef KAVRI_BENCH_MESSAGE_SERVER_H
#define KAVRI_BENCH_MESSAGE_SERVER_H

#include <string>

#include "child.h"
#include "transports/transport.h"

namespace kavri::bench {

// The names of two that are joined; clients are at the first, services at the second.
inline constexpr const char* nearServer = "near";
inline constexpr const char* farServer = "far";

Child startMessageServer(const Place& place, const std::string& name);
// Joined with one that runs; ready when both know of each other.
Child startJoinedServer(const Place& place, const std::string& name, const std::string& other);

// Where clients reach it; empty until it listens.
std::string addressOfServer(const Place& place, const std::string& name);

}  // namespace kavri::bench

#endif
