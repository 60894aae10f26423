// kavri-broker: the process around the broker. Command line, configuration,
// signals, readiness and exit status.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "broker/config.h"
#include "broker/listener.h"
#include "broker/server.h"
#include "interfaces/address.h"
#include "test_service/test_service.h"

namespace {

using namespace kavri;

// Exit statuses beyond 0.
constexpr int cannotStart = 1;
constexpr int badUsage = 64;

struct Arguments {
    std::string socket;
    std::string config;
    bool testService = false;
};

void describe(CLI::App& app, Arguments& arguments) {
    app.set_version_flag("--version", "kavri-broker " KAVRI_VERSION);
    app.add_option("--socket", arguments.socket,
                   "Path of the socket to listen on. Otherwise: $KAVRI_BROKER, else "
                   "$XDG_RUNTIME_DIR/kavri/broker.sock where that folder exists, else "
                   "/run/kavri/broker.sock")
        ->type_name("PATH");
    app.add_option("--config", arguments.config, "File with limits and access rights, in TOML")
        ->type_name("FILE");
    app.add_flag("--test-service", arguments.testService,
                 "Serve category \"test\" in the broker's own process");
    app.footer(
        "Says on standard error when it is ready, and stops on SIGTERM and SIGINT.\n"
        "Exit status: 0 stopped, 1 could not start, 64 wrong usage.");
}

std::string newIdentity() {
    uuid_t identity;
    uuid_generate(identity);
    std::array<char, UUID_STR_LEN> text{};
    uuid_unparse_lower(identity, text.data());
    return text.data();
}

// SIGTERM and SIGINT become readable here, instead of interrupting anything.
int stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
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

void serve(const Arguments& arguments) {
    broker::Config config =
        arguments.config.empty() ? broker::defaultConfig() : broker::readConfig(arguments.config);
    raiseDescriptorLimit(config.limits.connections);
    const int stop = stopSignals();
    const auto& connect = config.policy.connect;
    const bool openToOthers =
        connect.everybody || std::ranges::any_of(connect.listed, [](uid_t user) {
            return user != 0 && user != geteuid();
        });
    broker::Listener listener(interfaces::brokerAddress(arguments.socket), openToOthers);
    test_service::TestService service([](std::string_view identifier) {
        spdlog::warn("unknown test command \"{}\": answered with an empty payload", identifier);
    });
    broker::Server server({config.limits, std::move(config.policy), newIdentity(), stop}, listener);
    if (arguments.testService) {
        server.embed(test_service::category, service);
    }
    spdlog::info("ready on {}{}", listener.path(),
                 arguments.testService ? ", serving category \"test\"" : "");
    sd_notify(0, "READY=1");
    server.run();
    sd_notify(0, "STOPPING=1");
    spdlog::info("stopped");
}

int runCommandLine(int argc, char** argv) {
    CLI::App app{"Carries requests, responses and events between programs on this machine."};
    Arguments arguments;
    describe(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help or --version
        }
        std::fprintf(stderr, "kavri-broker: %s; see kavri-broker --help\n", error.what());
        return badUsage;
    }
    spdlog::set_default_logger(spdlog::stderr_logger_st("kavri-broker"));
    spdlog::set_pattern("%n: %v");
    serve(arguments);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return runCommandLine(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kavri-broker: %s\n", error.what());
        return cannotStart;
    }
}
