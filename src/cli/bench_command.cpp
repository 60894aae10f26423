// Measures round trips: first one at a time, for the latency, then many at a
// time, for the throughput; see bench_command.h. Every answer is compared with
// what was sent.
#include "cli/bench_command.h"

#include <fmt/format.h>
#include <kavri/ipc.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <nlohmann/json.hpp>

#include "base/command_line.h"
#include "base/latencies.h"
#include "base/terminal.h"
#include "cli/socket_option.h"
#include "terminal/latency_report.h"
#include "wire/address.h"

namespace kavri::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int answerTimeoutMs = 10'000;
constexpr std::chrono::milliseconds progressInterval{200};

struct Measurement {
    base::Latencies latencies;
    std::chrono::nanoseconds time{0};

    double perSecond() const {
        return static_cast<double>(latencies.count()) * 1e9 / static_cast<double>(time.count());
    }
};

std::string adviceOn(kavri_core_status status, const BenchOptions& options) {
    switch (status) {
        case KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE:
        case KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID:
            return "start one with 'kavri-broker --test-service', or name its socket with --socket";
        case KAVRI_CORE_STATUS_IPC_NO_RESPONDER:
            return fmt::format(
                "nobody serves category '{}'; start its service, or name another "
                "with --category",
                options.category);
        case KAVRI_CORE_STATUS_IPC_NO_MESSAGE:
            return fmt::format(
                "no answer to '{}' within {} s; name a command that is answered "
                "with --command",
                options.command, answerTimeoutMs / 1000);
        case KAVRI_CORE_STATUS_IPC_TOO_LARGE:
            return "the broker allows no payload that large; choose a smaller --payload";
        default:
            return "see the broker's log";
    }
}

void check(kavri_core_status status, const BenchOptions& options) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("broker at {}: {}: {}", wire::brokerAddress(options.socket),
                        kavri_core_status_text(status), adviceOn(status, options)));
    }
}

// The library and one initiator, for as long as this lives.
class Client {
  public:
    explicit Client(const BenchOptions& options) : options_(options) {
        kavri_core_init();
        kavri_core_ipc_options how{};
        how.sizeBytes = sizeof how;
        how.brokerAddress = options.socket.empty() ? nullptr : options.socket.c_str();
        const kavri_core_status status = kavri_core_ipc_initiator_init(nullptr, &how, &initiator_);
        if (status != KAVRI_CORE_STATUS_NO_ERROR) {
            kavri_core_deinit();
        }
        check(status, options);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() {
        kavri_core_ipc_deinit(initiator_);
        kavri_core_deinit();
    }

    void send(const std::string& uuid, const std::string& payload) {
        check(kavri_core_ipc_initiator_command_send(initiator_, options_.category.c_str(),
                                                    options_.command.c_str(), uuid.c_str(),
                                                    payload.c_str()),
              options_);
    }

    // Throws where the answer is not the one to `uuid`, or, of an echo, has
    // another payload.
    void receive(const std::string& uuid, const std::string& payload) {
        std::array<char*, 4> fields{};
        check(kavri_core_ipc_initiator_response_receive(initiator_, answerTimeoutMs, &fields[0],
                                                        &fields[1], &fields[2], &fields[3]),
              options_);
        const bool isRight = uuid == fields[2] && (options_.command != "echo" ||
                                                   (fields[3] != nullptr && payload == fields[3]));
        for (char* field : fields) {
            std::free(field);
        }
        if (!isRight) {
            throw process::CommandFailure(
                process::ExitStatus::failed,
                fmt::format("the answer to request {} is not the one that was due", uuid));
        }
    }

  private:
    const BenchOptions& options_;
    kavri_core_ipc_initiator* initiator_ = nullptr;
};

// How far a measurement has come, on a terminal.
class Progress {
  public:
    explicit Progress(const char* what) : what_(what), next_(Clock::now() + progressInterval) {}

    void update(Clock::time_point now, std::size_t count, std::chrono::duration<double> left) {
        if (now >= next_) {
            next_ = now + progressInterval;
            line_.show(fmt::format("{}: {} round trips, {:.0f} s to go", what_, count,
                                   std::max(left.count(), 0.0)));
        }
    }

  private:
    const char* what_;
    const base::DisplayStyle style_ = base::DisplayStyle::of(STDERR_FILENO);
    base::ProgressLine line_{std::cerr, style_};
    Clock::time_point next_;
};

// Keeps `inFlight` requests under way until the time is over, and receives what
// is then still due.
Measurement measure(Client& client, const BenchOptions& options, unsigned inFlight,
                    const char* what) {
    struct Sent {
        std::string uuid;
        Clock::time_point when;
    };
    const std::string payload(options.payloadBytes, 'x');
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(options.seconds));
    Measurement result;
    Progress progress(what);
    std::deque<Sent> due;
    std::size_t number = 0;
    for (Clock::time_point now = begin; now < end || !due.empty();) {
        while (now < end && due.size() < inFlight) {
            due.push_back({std::to_string(number++), Clock::now()});
            client.send(due.back().uuid, payload);
        }
        client.receive(due.front().uuid, payload);
        now = Clock::now();
        result.latencies.add(now - due.front().when);
        due.pop_front();
        progress.update(now, result.latencies.count(), end - now);
    }
    result.time = Clock::now() - begin;
    return result;
}

void print(const char* what, const Measurement& measurement, const BenchOptions& options) {
    const std::string line =
        fmt::format("{:<14} {:>10.0f} /s {:>9.1f} MB/s   {}", what, measurement.perSecond(),
                    measurement.perSecond() * options.payloadBytes / 1e6,
                    terminal::latencyText(measurement.latencies));
    std::cout << base::fitted(line, base::DisplayStyle::ofStandardOutput()) << '\n';
}

nlohmann::ordered_json asJson(const Measurement& measurement, unsigned inFlight) {
    return {{"in_flight", inFlight},
            {"round_trips", measurement.latencies.count()},
            {"round_trips_per_second", measurement.perSecond()},
            {"latency_us", terminal::latencyJson(measurement.latencies)}};
}

}  // namespace

void describeBench(CLI::App& command, BenchOptions& options) {
    describeSocket(command, options.socket);
    command.add_option("--category", options.category, "Where the requests go")
        ->type_name("NAME")
        ->capture_default_str();
    command
        .add_option("--command", options.command,
                    "The identifier of the requests; one that is answered. Of 'echo' the "
                    "payload of each answer is compared")
        ->type_name("NAME")
        ->capture_default_str();
    command.add_option("--payload", options.payloadBytes, "Size of each payload")
        ->type_name("BYTES")
        ->capture_default_str()
        ->check(CLI::Range(0U, 64U * 1024 * 1024));
    command
        .add_option("--in-flight", options.inFlight,
                    "Requests under way at once when throughput is measured")
        ->type_name("N")
        ->capture_default_str()
        ->check(CLI::Range(1U, 65536U));
    command.add_option("--seconds", options.seconds, "How long each of the two measurements takes")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 86400.0));
    command.add_flag("--json", options.json, "Print JSON");
    command.footer(
        "Latencies are in microseconds, from before the send to after the receive.\n\n"
        "Exit status: 0 measured; 1 an answer was not the one that was due; 3 nothing could\n"
        "be measured; 64 the command line is wrong; 74 it could not be printed.\n\n"
        "Examples:\n"
        "  kavri bench\n"
        "  kavri bench --payload 65536 --in-flight 16 --json");
}

process::ExitStatus runBench(const BenchOptions& options) {
    Client client(options);
    const Measurement single = measure(client, options, 1, "one at a time");
    const Measurement many = measure(client, options, options.inFlight, "in flight");
    if (options.json) {
        const nlohmann::ordered_json report = {{"payload_bytes", options.payloadBytes},
                                               {"category", options.category},
                                               {"command", options.command},
                                               {"one_at_a_time", asJson(single, 1)},
                                               {"in_flight", asJson(many, options.inFlight)}};
        std::cout << report.dump(2) << '\n';
    } else {
        print("one at a time", single, options);
        print(fmt::format("{} in flight", options.inFlight).c_str(), many, options);
    }
    return process::ExitStatus::passed;
}

}  // namespace kavri::cli
