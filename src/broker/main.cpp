// kavri-broker: the process around the broker. Command line, configuration,
// signals, readiness and exit status.
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/command_line.h"
#include "broker/config.h"
#include "broker/hosted_test_service.h"
#include "broker/link/bus_module.h"
#include "broker/log/log.h"
#include "broker/loop/listener.h"
#include "broker/loop/server.h"
#include "broker/service_manager.h"
#include "wire/address.h"

namespace {

using namespace kavri;

// Exit statuses beyond 0.
constexpr int failure = 1;
constexpr int badUsage = 64;

// Of a name that a peer chose.
constexpr std::size_t longestLoggedName = 100;

struct Arguments {
    std::string socket;
    std::string config;
    bool testService = false;
    std::string serviceRecord;
};

void describe(CLI::App& app, Arguments& arguments) {
    app.set_version_flag("--version", "kavri-broker " KAVRI_VERSION);
    app.add_option("--socket", arguments.socket,
                   "Path of the socket to listen on, unless the service manager passes one. "
                   "Otherwise: $KAVRI_BROKER, else "
                   "$XDG_RUNTIME_DIR/kavri/broker.sock where that folder exists, else "
                   "/run/kavri/broker.sock")
        ->type_name("PATH")
        ->check(base::notEmpty());
    app.add_option("--config", arguments.config,
                   "File with limits, access rights and the link to other brokers, in TOML")
        ->type_name("FILE")
        ->check(base::notEmpty());
    CLI::Option* const testService =
        app.add_flag("--test-service", arguments.testService,
                     "Serve category \"test\" in the broker's own process");
    app.add_option("--service-record", arguments.serviceRecord,
                   "Append what reaches the test service and what it answers to FILE, a line of "
                   "JSON for each request")
        ->type_name("FILE")
        ->check(base::notEmpty())
        ->needs(testService);
    app.footer(
        "Says on standard error when it is ready, stops on SIGTERM and SIGINT, and reads\n"
        "its configuration again on SIGHUP.\n"
        "Exit status: 0 stopped, 1 could not start or lost its socket, 64 wrong usage.");
}

std::string newIdentity() {
    uuid_t identity;
    uuid_generate(identity);
    std::array<char, UUID_STR_LEN> text{};
    uuid_unparse_lower(identity, text.data());
    return text.data();
}

// These become readable here, instead of interrupting anything.
int signalsToHandle() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// Each connection is a descriptor: asks for as many as the limit on connections
// needs, and says so where the system gives fewer.
void raiseDescriptorLimit(std::size_t connections) {
    const rlim_t wanted = connections + 64;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted) {
        return;
    }
    limit.rlim_max = std::max(limit.rlim_max, wanted);
    limit.rlim_cur = wanted;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        if (limit.rlim_cur < wanted) {
            spdlog::warn("only {} descriptors are to be had, for up to {} connections",
                         limit.rlim_cur, connections);
        }
    }
}

bool isOpenToOthers(const broker::Policy& policy) {
    return policy.connect.everybody || std::ranges::any_of(policy.connect.listed, [](uid_t user) {
               return user != 0 && user != geteuid();
           });
}

broker::Config configOf(const Arguments& arguments) {
    broker::Config config =
        arguments.config.empty() ? broker::defaultConfig() : broker::readConfig(arguments.config);
    for (const std::string& doubt : broker::doubtsAbout(config)) {
        spdlog::warn("{}", doubt);
    }
    return config;
}

// What a running broker is reloaded with.
struct Running {
    const Arguments& arguments;
    const std::optional<broker::LinkOptions>& link;
    broker::Listener& listener;
    broker::Server& server;
};

// A file with an error changes nothing.
void reload(const Running& running) {
    const auto& [arguments, link, listener, server] = running;
    if (arguments.config.empty()) {
        spdlog::warn("nothing to reload: started without --config");
        return;
    }
    try {
        broker::Config config = configOf(arguments);
        raiseDescriptorLimit(config.limits.connections);
        listener.setOpenToOthers(isOpenToOthers(config.policy));
        if (config.limits.payloadBytes != server.limits().payloadBytes) {
            spdlog::warn("payload_bytes stays {} until the broker is started anew",
                         server.limits().payloadBytes);
        }
        if (config.link != link) {
            spdlog::warn("[link] stays as it was until the broker is started anew");
        }
        server.reconfigure(config.limits, std::move(config.policy));
        spdlog::info("reloaded \"{}\"", arguments.config);
    } catch (const broker::BadConfig& error) {
        spdlog::error("the configuration stays as it was: {}", error.what());
    }
}

void handleSignals(int signals, const Running& running) {
    signalfd_siginfo info{};
    while (read(signals, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGHUP) {
            broker::notifyReloading();
            reload(running);
            broker::notifyReady();
        } else {
            running.server.stop();
        }
    }
}

// On the socket that the service manager passed, else on one that is made here.
broker::Listener listenerFor(const Arguments& arguments, const broker::Policy& policy) {
    if (base::Descriptor passed = broker::passedSocket(); passed.isOpen()) {
        return broker::Listener(std::move(passed));
    }
    return {wire::brokerAddress(arguments.socket), isOpenToOthers(policy)};
}

void serve(const Arguments& arguments, int signals, const broker::Log& log) {
    broker::Config config = configOf(arguments);
    raiseDescriptorLimit(config.limits.connections);
    std::unique_ptr<broker::Bus> bus = config.link ? broker::loadBus(config.link->bus) : nullptr;
    broker::Listener listener = listenerFor(arguments, config.policy);
    broker::HostedTestService service([](std::string_view identifier) {
        spdlog::warn("unknown test command \"{}\": answered with an empty payload",
                     identifier.substr(0, longestLoggedName));
    });
    if (!arguments.serviceRecord.empty()) {
        service.recordTo(arguments.serviceRecord);
    }
    broker::Server server({config.limits,
                           std::move(config.policy),
                           newIdentity(),
                           {.version = KAVRI_VERSION, .process = ::getpid(), .user = ::geteuid()},
                           broker::watchdogHeartbeat()},
                          listener, log);
    if (arguments.testService) {
        server.embed(test_service::category, service);
    }
    if (bus != nullptr) {
        server.join(std::move(bus), *config.link);
    }
    spdlog::info("ready on {}{}", listener.path(),
                 arguments.testService ? ", serving category \"test\"" : "");
    broker::notifyReady();
    const broker::StoppingNotice stopping;
    server.run(signals, [&] {
        handleSignals(signals, {arguments, config.link, listener, server});
    });
    spdlog::info("stopped");
}

int runCommandLine(int argc, char** argv) {
    CLI::App app{"Carries requests, responses and events between programs on this machine."};
    Arguments arguments;
    describe(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return base::answer(app, asked);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "kavri-broker: %s\n",
                     base::usageComplaint(app, error, "kavri-broker").c_str());
        return badUsage;
    }
    const int signals = signalsToHandle();
    const broker::Log log("kavri-broker", STDERR_FILENO);
    try {
        serve(arguments, signals, log);
    } catch (const std::exception& error) {
        spdlog::error("{}", error.what());
        return failure;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return runCommandLine(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kavri-broker: %s\n", error.what());
        return failure;
    }
}
