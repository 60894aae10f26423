// One client's round trips, timed.
#ifndef KAVRI_BENCH_ROUND_TRIPS_H
#define KAVRI_BENCH_ROUND_TRIPS_H

#include "figures.h"
#include "session.h"

namespace kavri::bench {

Latencies roundTripsFor(CheckedClient& client, double seconds);

}  // namespace kavri::bench

#endif
