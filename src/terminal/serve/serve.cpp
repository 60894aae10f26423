// The loop around requests, runs of the command and signals, in one thread; see serve.h.
#include "terminal/serve/serve.h"

#include <fmt/format.h>
#include <poll.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <list>
#include <vector>

#include "base/printable.h"
#include "process/stop_signals.h"
#include "terminal/library.h"
#include "terminal/outcome.h"
#include "terminal/serve/job.h"
#include "terminal/serve/request_inbox.h"
#include "wire/address.h"

namespace kavri::terminal {

namespace {

using Clock = std::chrono::steady_clock;

void say(const std::string& line) {
    std::cerr << "kavri serve: " + line + "\n" << std::flush;
}

void connectionChanged(const kavri_core_ipc_connection_change* change, void*) {
    if (change->event == KAVRI_CORE_IPC_CONNECTION_RESTORED) {
        say(fmt::format("connected again after {:.1f} s, serving",
                        static_cast<double>(change->disconnectedMs) / 1000));
    }
}

kavri_core_ipc_options connectionFor(const ServeOptions& options) {
    kavri_core_ipc_options connection = optionsFor(options.socket);
    connection.connectionCallback = connectionChanged;
    return connection;
}

class Service {
  public:
    explicit Service(const ServeOptions& options)
        : options_(options),
          plan_{.command = options.command.value_or(""),
                .broker = wire::brokerAddress(options.socket),
                .timeout = std::chrono::milliseconds(
                    static_cast<std::int64_t>(options.timeoutSeconds * 1000))},
          responder_(openResponder(library_, connectionFor(options), options.category)),
          inbox_(responder_.get(), options.command ? options.jobs : RequestInbox::mostAtOnce) {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    // The responder first: its callback uses the inbox. Senders of requests under way learn
    // that they are lost, before the commands are killed.
    ~Service() { responder_.reset(); }

    // Returns the signal that stops it.
    int run() {
        inbox_.resume();
        say(fmt::format("ready, serving \"{}\"", base::printable(options_.category)));
        sd_notify(0, "READY=1");
        while (!signals_.received()) {
            wait();
            takeRequests();
            advanceJobs();
            inbox_.resume();
        }
        sd_notify(0, "STOPPING=1");
        return *signals_.received();
    }

  private:
    // Until something can be done.
    void wait() const {
        std::vector<pollfd> sources = {{signals_.descriptor(), POLLIN, 0},
                                       {inbox_.descriptor(), POLLIN, 0}};
        std::int64_t waitMs = 3'600'000;
        for (const Job& job : jobs_) {
            job.addSources(sources);
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(job.deadline() - Clock::now());
            waitMs = std::clamp<std::int64_t>(left.count(), 0, waitMs);
        }
        poll(sources.data(), sources.size(), static_cast<int>(waitMs));
    }

    void takeRequests() {
        for (Request& request : inbox_.take()) {
            if (options_.command) {
                startJob(request);
            } else {
                answer(request, options_.answer.value_or(request.payload));
                inbox_.finished();
            }
        }
    }

    void startJob(const Request& request) {
        try {
            jobs_.emplace_back(request, plan_);
        } catch (const std::system_error& error) {
            endWithoutAnswer(request, error.what());
            inbox_.finished();
        }
    }

    void advanceJobs() {
        for (auto job = jobs_.begin(); job != jobs_.end();) {
            const std::optional<JobResult> result = job->advance();
            if (!result) {
                ++job;
                continue;
            }
            if (result->payload) {
                answer(job->request(), *result->payload);
            } else {
                endWithoutAnswer(job->request(), result->reason);
            }
            job = jobs_.erase(job);
            inbox_.finished();
        }
    }

    void answer(const Request& request, const std::string& payload) {
        const kavri_core_status status = kavri_core_ipc_responder_response_send(
            responder_.get(), request.name, request.category.c_str(), request.identifier.c_str(),
            request.uuid.c_str(), payload.c_str());
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            endWithoutAnswer(request, fmt::format("the answer of {} bytes could not be sent: {}",
                                                  payload.size(), explained(status)));
        }
    }

    // Where the connection is lost, the sender knows that already.
    void endWithoutAnswer(const Request& request, const std::string& reason) {
        kavri_core_ipc_responder_request_end(responder_.get(), request.name);
        say(fmt::format("no answer to \"{}\" {}: {}", base::printable(request.identifier),
                        base::printable(request.uuid), reason));
    }

    const ServeOptions& options_;
    const JobPlan plan_;
    const Library library_{"kavri serve"};
    Responder responder_;
    RequestInbox inbox_;
    // From here on a signal ends it in an orderly way. Those of the library's thread are blocked.
    process::StopSignals signals_;
    std::list<Job> jobs_;
};

}  // namespace

process::ExitStatus runServe(const ServeOptions& options) {
    const int signal = Service(options).run();
    if (signal != SIGTERM && signal != SIGINT) {
        process::dieBySignal(signal);
    }
    return process::ExitStatus::passed;
}

}  // namespace kavri::terminal
