// What the broker looks for in the module; see broker/link/bus.h.
#include "broker/link/bus.h"
#include "link_nats/nats_bus.h"

using kavri::broker::Bus;
using kavri::broker::BusOptions;

extern "C" {

[[gnu::visibility("default")]] extern const char* const kavriBusVersion;
const char* const kavriBusVersion = KAVRI_VERSION;

[[gnu::visibility("default")]] Bus* kavriMakeBus(const BusOptions& options) {
    return new kavri::link_nats::NatsBus(options);
}
}
