// The broker's configuration file: limits and rights, in TOML.
//
//     [limits]
//     payload_bytes = 1048576            # and the others of wire/limit_settings.h
//
//     [access]
//     connect = ["alice", 1001]          # users by name or number; "*": everybody
//     manage = ["alice"]                 # who may ask what the broker is doing
//
//     [access.category."test"]           # default: all who may connect
//     serve = ["alice"]
//     send = ["*"]
//     subscribe = ["*"]
#ifndef KAVRI_BROKER_CONFIG_H
#define KAVRI_BROKER_CONFIG_H

#include <stdexcept>
#include <string>

#include "broker/routing/policy.h"
#include "wire/limits.h"

namespace kavri::broker {

// Says in one line what is wrong, where in the file, and what would be right.
class BadConfig : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Config {
    wire::Limits limits;
    Policy policy;
};

// The defaults: this process' user and root may connect, and manage.
Config defaultConfig();
Config readConfig(const std::string& path);

}  // namespace kavri::broker

#endif
