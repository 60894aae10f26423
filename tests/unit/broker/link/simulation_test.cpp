// Random schedules of kills, partitions, lost servers, slow programs and responders that move,
// under load, on two to four simulated machines: every request has exactly one outcome, which
// is true; events come in order or are told to be missed; nothing is left of anybody.
//
//     link_simulation_test              200 seeds
//     link_simulation_test -- 17        one seed
//     link_simulation_test -- 200 1000  from one to another
#define BOOST_TEST_MODULE link_simulation

#include <boost/test/unit_test.hpp>
#include <cstdlib>

#include "simulated_machines.h"

using namespace kavri::tests;

namespace {

struct Seeds {
    std::uint64_t first = 1;
    std::uint64_t last = 200;
};

Seeds chosenSeeds() {
    const auto& suite = boost::unit_test::framework::master_test_suite();
    if (suite.argc < 2) {
        return {};
    }
    const std::uint64_t first = std::strtoull(suite.argv[1], nullptr, 10);
    return {first, suite.argc < 3 ? first : std::strtoull(suite.argv[2], nullptr, 10)};
}

void add(SimulatedMachines::Totals& sum, const SimulatedMachines::Totals& more) {
    sum.requests += more.requests;
    sum.answered += more.answered;
    sum.notDelivered += more.notDelivered;
    sum.unknown += more.unknown;
    sum.crossed += more.crossed;
    sum.events += more.events;
    sum.faults += more.faults;
}

}  // namespace

BOOST_AUTO_TEST_CASE(everyRequestHasOneOutcomeWhateverHappens) {
    const Seeds seeds = chosenSeeds();
    SimulatedMachines::Totals sum;
    for (std::uint64_t seed = seeds.first; seed <= seeds.last; ++seed) {
        SimulatedMachines machines(seed);
        try {
            machines.run();
        } catch (const std::exception& error) {
            BOOST_ERROR("seed " << seed << ": " << error.what());
        }
        add(sum, machines.totals());
    }
    BOOST_TEST_MESSAGE(sum.requests << " requests: " << sum.answered << " answered, " << sum.crossed
                                    << " of them by other machines; " << sum.notDelivered
                                    << " not delivered, " << sum.unknown << " unknown; "
                                    << sum.events << " events; " << sum.faults << " faults");
    BOOST_TEST(sum.requests == sum.answered + sum.notDelivered + sum.unknown);
    // There was something to be seen.
    BOOST_TEST(sum.crossed > 0U);
    BOOST_TEST(sum.notDelivered > 0U);
    BOOST_TEST(sum.unknown > 0U);
    BOOST_TEST(sum.events > 0U);
}
