// kavri-test-service: serves category "test" as a responder of its own, through
// the public functions. Answers on the library's thread; this one waits for a
// signal to stop.
#include <kavri/ipc.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "base/command_line.h"
#include "test_service/service_record.h"
#include "test_service/test_service.h"

namespace {

using kavri::test_service::ServiceRecord;
using kavri::test_service::TestService;

constexpr int cannotStart = 1;
constexpr int recordLost = 1;
constexpr int badUsage = 64;

const std::string category(kavri::test_service::category);
const std::string eventIdentifier(kavri::test_service::eventIdentifier);

struct Arguments {
    std::string socket;
    std::string record;
};

struct Server {
    TestService service;
    std::optional<ServiceRecord> record;
    std::atomic<bool> isRecordLost = false;
    kavri_core_ipc_responder* responder = nullptr;
};

// Who sent the request is known to the broker alone. Without its record the service is not
// what was asked for: it stops.
void recordRequest(Server& server, std::string_view targetCategory, std::string_view identifier,
                   std::string_view uuid, std::string_view payload,
                   const TestService::Reaction& reaction) {
    try {
        server.record->add({.connection = std::nullopt,
                            .process = std::nullopt,
                            .category = targetCategory,
                            .identifier = identifier,
                            .uuid = uuid,
                            .payload = payload},
                           reaction);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kavri-test-service: %s\n", error.what());
        server.isRecordLost = true;
        kill(getpid(), SIGTERM);
    }
}

// An answer that cannot be sent is lost with the connection, which the library
// makes again; its sender is told by the broker.
void answer(kavri_core_ipc_request request, char** targetCategory, char** targetIdentifier,
            char** uuid, char** payload, void* context) {
    auto& server = *static_cast<Server*>(context);
    const TestService::Reaction reaction = server.service.handle(*targetIdentifier, *payload);
    if (server.record && !server.isRecordLost) {
        recordRequest(server, *targetCategory, *targetIdentifier, *uuid, *payload, reaction);
    }
    if (reaction.publishes) {
        kavri_core_ipc_responder_event_publish(server.responder, category.c_str(),
                                               eventIdentifier.c_str(), *payload);
    }
    if (reaction.answers) {
        kavri_core_ipc_responder_response_send(server.responder, request, *targetCategory,
                                               *targetIdentifier, *uuid, reaction.payload.data());
    } else {
        kavri_core_ipc_responder_request_end(server.responder, request);
    }
    for (char** field : {targetCategory, targetIdentifier, uuid, payload}) {
        std::free(*field);
    }
}

void logUnknown(std::string_view identifier) {
    std::fprintf(stderr,
                 "kavri-test-service: unknown command \"%.*s\": answered with an empty payload\n",
                 static_cast<int>(identifier.size()), identifier.data());
}

int fail(kavri_core_status status) {
    const char* advice = "";
    if (status == KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE) {
        advice = ": start kavri-broker, or say where it is with --socket";
    } else if (status == KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID) {
        advice = ": a socket path has 107 bytes at most; choose a shorter one";
    } else if (status == KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN) {
        advice = ": stop the other test service, or a broker's own (--test-service)";
    }
    std::fprintf(stderr, "kavri-test-service: cannot serve category \"%s\": %s%s\n",
                 category.c_str(), kavri_core_status_text(status), advice);
    return cannotStart;
}

int serve(const Arguments& arguments) {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Server server{.service = TestService(logUnknown), .record = std::nullopt};
    if (!arguments.record.empty()) {
        server.record.emplace(arguments.record);
    }
    kavri_core_init();
    kavri_core_logging_cookie log = nullptr;
    kavri_core_logging_init("kavri-test-service", &log);
    kavri_core_ipc_options options{};
    options.sizeBytes = sizeof options;
    options.gatherWrites = 1;
    options.brokerAddress = arguments.socket.empty() ? nullptr : arguments.socket.c_str();
    const kavri_core_status status =
        kavri_core_ipc_responder_init(log, &options, category.c_str(), &server.responder);
    if (status == KAVRI_CORE_STATUS_NO_ERROR) {
        kavri_core_ipc_responder_request_receive_callback(server.responder, answer, &server);
        std::fprintf(stderr, "kavri-test-service: ready\n");
        sd_notify(0, "READY=1");
        int signal = 0;
        sigwait(&stopSignals, &signal);
        sd_notify(0, "STOPPING=1");
        kavri_core_ipc_responder_deinit(server.responder);
    }
    kavri_core_logging_deinit(log);
    kavri_core_deinit();
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        return fail(status);
    }
    return server.isRecordLost ? recordLost : 0;
}

int runCommandLine(int argc, char** argv) {
    CLI::App app{"Serves category \"test\": echo, static_response, a repeat counter, events."};
    app.set_version_flag("--version", "kavri-test-service " KAVRI_VERSION);
    Arguments arguments;
    app.add_option("--socket", arguments.socket,
                   "Path of the broker's socket. Otherwise: $KAVRI_BROKER, else "
                   "$XDG_RUNTIME_DIR/kavri/broker.sock where that folder exists, else "
                   "/run/kavri/broker.sock")
        ->type_name("PATH")
        ->check(kavri::base::notEmpty());
    app.add_option("--service-record", arguments.record,
                   "Append what arrives and what is answered to FILE, a line of JSON for each "
                   "request")
        ->type_name("FILE")
        ->check(kavri::base::notEmpty());
    app.footer(
        "Says on standard error when it is ready, and stops on SIGTERM and SIGINT.\n"
        "Exit status: 0 stopped, 1 could not start or write the record, 64 wrong usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return kavri::base::answer(app, asked);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "kavri-test-service: %s\n",
                     kavri::base::usageComplaint(app, error, "kavri-test-service").c_str());
        return badUsage;
    }
    return serve(arguments);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return runCommandLine(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kavri-test-service: %s\n", error.what());
        return cannotStart;
    }
}
