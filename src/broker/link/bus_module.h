// Loads what implements the bus: a module, so that only a broker with a link needs the
// client of a message server.
#ifndef KAVRI_BROKER_LINK_BUS_MODULE_H
#define KAVRI_BROKER_LINK_BUS_MODULE_H

#include <memory>
#include <stdexcept>

#include "broker/link/bus.h"

namespace kavri::broker {

// The module is missing, cannot be loaded, or is of another version.
class NoBus : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The module stays loaded when the bus is gone. Throws NoBus and BadBusOptions.
std::unique_ptr<Bus> loadBus(const BusOptions& options);

}  // namespace kavri::broker

#endif
