// What is configured, as options of libnats, one set for each server.
//
// Files are looked at here, so that what is wrong with one is said with its path before
// anything is connected. Certificates, seeds and tokens are checked as far as that can be
// done without a server.
#ifndef KAVRI_LINK_NATS_OPTIONS_H
#define KAVRI_LINK_NATS_OPTIONS_H

#include <string>
#include <vector>

#include "broker/link/bus.h"
#include "link_nats/libnats.h"

namespace kavri::link_nats {

struct Server {
    std::string address;  // as it may be shown: without a password
    Options options;
    bool isEncrypted = false;
};

// Throws BadBusOptions.
std::vector<Server> serversOf(const broker::BusOptions& wanted);

}  // namespace kavri::link_nats

#endif
