// kavri-bench-measure: one workload over one transport, figures as JSON on
// standard output; a failure is a reason on standard error and exit status 1.
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "options.h"
#include "process.h"
#include "workloads.h"

namespace {

using namespace kavri::bench;

nlohmann::json measure(const Options& options) {
    static const std::map<std::string, std::function<nlohmann::json(const Options&)>> workloads{
        {"round-trip", measureRoundTrip},
        {"in-flight", measureInFlight},
        {"events", measureEvents},
        {"active", measureActive},
        {"connect", measureConnect},
        {"idle", measureIdle},
        {"flood", measureFlood},
        {"round-trip-by-callback", measureRoundTripByCallback},
        {"in-flight-by-callback", measureInFlightByCallback},
    };
    const auto found = workloads.find(options.workload);
    if (found == workloads.end()) {
        throw std::runtime_error("there is no workload \"" + options.workload + "\"");
    }
    if (options.onOneProcessor) {
        pinToOneProcessor();
    }
    raiseDescriptorLimit();
    return found->second(options);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::cout << measure(readOptions(argc, argv)).dump() << std::endl;
        // Threads of subscribers and libraries are still at work: ends them all.
        std::_Exit(0);
    } catch (const std::exception& failure) {
        failMeasurement(failure);
    }
}
