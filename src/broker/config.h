// The broker's configuration file: limits, rights and the link, in TOML.
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
//
//     [link]                             # to other brokers; see also link_config.h
//     servers = ["nats://127.0.0.1:4222"]
//     export = ["test"]
//     import = ["test"]
#ifndef KAVRI_BROKER_CONFIG_H
#define KAVRI_BROKER_CONFIG_H

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "broker/link/link_options.h"
#include "broker/session/policy.h"
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
    std::optional<LinkOptions> link;
};

// The defaults: this process' user and root may connect, and manage.
Config defaultConfig();
Config readConfig(const std::string& path);

// What can be meant, and is probably not; a line each.
std::vector<std::string> doubtsAbout(const Config& config);

}  // namespace kavri::broker

#endif
