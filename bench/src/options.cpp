// The command line; see options.h.
#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <utility>

#include "service.h"
#include "transports/transport.h"
#include "workloads/workloads.h"

namespace kavri::bench {

namespace {

// What the further processes of a measurement are told.
struct Helper {
    std::string transport;
    Place place;
    std::string service;
    std::string socket;
    bool isInside = false;
    bool spins = false;
};

[[noreturn]] void leave(int status) {
    std::cout.flush();
    std::_Exit(status);
}

[[noreturn]] void runService(const Helper& helper) {
    Service service;
    makeTransport(helper.transport)
        ->serve(
            helper.place, helper.service,
            [&](std::string_view request, Answers& answers) { service.answer(request, answers); },
            [] { std::cout << "ready" << std::endl; });
    leave(1);
}

[[noreturn]] void runBusy() {
    volatile unsigned long counter = 0;
    while (true) {
        counter = counter + 1;
    }
}

CLI::App* addHelper(CLI::App& app, Helper& helper, const char* name, std::function<void()> run) {
    CLI::App* command = app.add_subcommand(name)->group("");
    command->add_option("--transport", helper.transport);
    command->add_option("--folder", helper.place.folder);
    command->add_option("--service", helper.service);
    command->add_option("--socket", helper.socket);
    command->add_flag("--many-in-flight", helper.place.manyInFlight);
    command->add_flag("--inside", helper.isInside);
    command->add_flag("--spin", helper.spins);
    command->callback(std::move(run));
    return command;
}

void addHelpers(CLI::App& app, Helper& helper) {
    addHelper(app, helper, "run-service", [&] { runService(helper); });
    addHelper(app, helper, "run-relay",
              [&] { runRelay(helper.socket, helper.isInside, helper.spins); });
#ifdef KAVRI_BENCH_HAS_ZEROMQ
    addHelper(app, helper, "run-zeromq-broker", [&] { runZeromqBroker(helper.place.folder); });
#endif
    addHelper(app, helper, "run-flood",
              [&] { runFlood(*makeTransport(helper.transport), helper.place, helper.service); });
    addHelper(app, helper, "run-busy", [] { runBusy(); });
}

void addMeasurement(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand("measure", "Measure once; the figures as JSON");
    command->add_option("transport", options.transport)->required();
    command->add_option("workload", options.workload)->required();
    command->add_option("--payload", options.payloadBytes, "Bytes of each payload")
        ->check(CLI::Range(32, 1 << 20));
    command->add_option("--window", options.window, "Requests under way at once")
        ->check(CLI::Range(2, 65536));
    command->add_option("--clients", options.clients, "Initiators or subscribers")
        ->check(CLI::Range(1, 100000));
    command->add_option("--idle", options.idleClients, "Idle initiators beside");
    command->add_option("--busy", options.busyProcesses, "Processes that use a processor each");
    command->add_flag("--one-processor", options.onOneProcessor, "Everything on one processor");
    command->add_flag("--flood-other", options.floodsOther, "The flood goes to another service");
    command->add_flag("--refill-by-own-thread", options.refillsByOwnThread,
                      "Callbacks do not send");
    command->add_option("--seconds", options.seconds, "Of measuring")
        ->check(CLI::Range(0.001, 3600.0));
}

}  // namespace

Options readOptions(int argc, char** argv) {
    CLI::App app{"One measurement of one way of carrying messages; bench/run does them all."};
    app.require_subcommand(1);
    Options options;
    Helper helper;
    addMeasurement(app, options);
    addHelpers(app, helper);
    app.add_subcommand("list", "The transports of this build")->callback([] {
        for (const std::string& name : transportNames()) {
            std::cout << name << "\n";
        }
        leave(0);
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        leave(app.exit(error) == 0 ? 0 : 64);
    }
    return options;
}

}  // namespace kavri::bench
