// What the configuration says about the link to other brokers; config.h has an example.
#ifndef KAVRI_BROKER_LINK_CONFIG_H
#define KAVRI_BROKER_LINK_CONFIG_H

#include <toml++/toml.h>

#include "broker/config_file.h"
#include "broker/link/link_options.h"

namespace kavri::broker {

// Throws BadConfig.
LinkOptions readLink(const ConfigFile& file, const toml::table& table);

}  // namespace kavri::broker

#endif
