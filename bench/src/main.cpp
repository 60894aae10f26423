// kavri-bench-measure: one workload over one transport, figures as JSON on
// standard output; a failure is a reason on standard error and exit status 1.
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <system_error>

#include "failure.h"
#include "options.h"
#include "workloads/workloads.h"

namespace {

using namespace kavri::bench;

// Everything from now on runs on one processor: the last that is allowed.
void pinToOneProcessor() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    ::sched_getaffinity(0, sizeof allowed, &allowed);
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(static_cast<std::size_t>(last), &allowed)) {
        --last;
    }
    CPU_ZERO(&allowed);
    CPU_SET(static_cast<std::size_t>(last), &allowed);
    if (::sched_setaffinity(0, sizeof allowed, &allowed) != 0) {
        throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
    }
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);  // where it fails, connecting does later
    }
}

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
