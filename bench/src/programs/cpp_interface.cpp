// kavri-bench-cpp: what kavri/kavri.hpp costs beside the C functions.
//
// The same client is written once for each; both do what a program does with its messages.
// Every case is measured for both in turn, in rounds that begin with the other one, against
// one broker with its embedded test service. The ratio of a case, C++ to C, is taken in each
// round, of messages per second and of this process's processor time for each message; the
// median counts.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <kavri/kavri.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child.h"
#include "figures.h"
#include "process/temporary_folder.h"

namespace {

using namespace kavri::bench;

void check(kavri_core_status status) {
    kavri::throwOnFailure(status, "the C function");
}

// Every byte of a payload is looked at once, as a program would that uses it.
void use(std::string_view payload, const std::string& expected) {
    if (payload != expected) {
        throw std::runtime_error("a payload came back changed");
    }
}

class CClient {
  public:
    CClient(const std::string& address, const std::string& payload) : payload_(payload) {
        kavri_core_ipc_options options{};
        options.sizeBytes = sizeof options;
        options.brokerAddress = address.c_str();
        check(kavri_core_ipc_initiator_init(nullptr, &options, &initiator_));
    }
    CClient(const CClient&) = delete;
    CClient& operator=(const CClient&) = delete;
    ~CClient() { kavri_core_ipc_deinit(initiator_); }

    void send() {
        check(kavri_core_ipc_initiator_command_send(initiator_, "test", "echo", "1",
                                                    payload_.c_str()));
    }
    void sendBatch(const std::vector<kavri_core_ipc_command>& commands) {
        std::size_t sent = 0;
        check(kavri_core_ipc_initiator_command_send_batch(initiator_, commands.data(),
                                                          commands.size(), &sent));
    }
    void receive() {
        char* category = nullptr;
        char* identifier = nullptr;
        char* uuid = nullptr;
        char* payload = nullptr;
        check(kavri_core_ipc_initiator_response_receive(initiator_, -1, &category, &identifier,
                                                        &uuid, &payload));
        use(payload, payload_);
        free(category, identifier, uuid, payload);
    }
    // The next request is sent within the callback of a response.
    void refillByCallback(std::atomic<std::uint64_t>& received) {
        received_ = &received;
        check(kavri_core_ipc_initiator_response_receive_callback(initiator_, responded, this));
    }
    void countEvents(std::atomic<std::uint64_t>& received) {
        received_ = &received;
        check(kavri_core_ipc_initiator_event_receive_callback(initiator_, published, this));
        check(kavri_core_ipc_initiator_event_subscribe(initiator_, "events"));
    }

  private:
    template <typename... Strings>
    static void free(Strings... strings) {
        (std::free(strings), ...);
    }
    static void responded(char** category, char** identifier, char** uuid, char** payload,
                          void* context) {
        auto* const self = static_cast<CClient*>(context);
        use(*payload, self->payload_);
        free(*category, *identifier, *uuid, *payload);
        ++*self->received_;
        self->send();
    }
    static void published(char** category, char** identifier, char** payload, void* context) {
        auto* const self = static_cast<CClient*>(context);
        use(*payload, self->payload_);
        free(*category, *identifier, *payload);
        ++*self->received_;
    }

    const std::string& payload_;
    std::atomic<std::uint64_t>* received_ = nullptr;
    kavri_core_ipc_initiator* initiator_ = nullptr;
};

class CppClient {
  public:
    CppClient(const std::string& address, const std::string& payload)
        : payload_(payload), initiator_(optionsFor(address)) {}

    void send() { initiator_.send("test", "echo", "1", payload_); }
    void sendBatch(const std::vector<kavri::Command>& commands) { initiator_.sendBatch(commands); }
    void receive() { use(initiator_.receive()->payload(), payload_); }
    void refillByCallback(std::atomic<std::uint64_t>& received) {
        initiator_.onResponse([this, &received](const kavri::Response& response) {
            use(response.payload(), payload_);
            ++received;
            send();
        });
    }
    void countEvents(std::atomic<std::uint64_t>& received) {
        initiator_.onEvent([this, &received](const kavri::Event& event) {
            use(event.payload(), payload_);
            ++received;
        });
        initiator_.subscribe("events");
    }

  private:
    static kavri::Options optionsFor(const std::string& address) {
        kavri::Options options;
        options.brokerAddress = address;
        return options;
    }

    const std::string& payload_;
    kavri::Initiator initiator_;  // last: callbacks use the others until it is gone
};

struct Case {
    const char* title;
    std::size_t payloadBytes;
    enum class Kind { roundTrip, inFlight, batch, callback, events } kind;
};

constexpr std::array<Case, 9> cases{{
    {"round trip, 32 B", 32, Case::Kind::roundTrip},
    {"round trip, 64 KiB", 65536, Case::Kind::roundTrip},
    {"round trip, 1 MiB", 1048576, Case::Kind::roundTrip},
    {"64 in flight, 32 B", 32, Case::Kind::inFlight},
    {"64 in flight, 64 KiB", 65536, Case::Kind::inFlight},
    {"64 in flight, 1 MiB", 1048576, Case::Kind::inFlight},
    {"batches of 32, 32 B", 32, Case::Kind::batch},
    {"64 in flight by callback, 32 B", 32, Case::Kind::callback},
    {"events by callback, 32 B", 32, Case::Kind::events},
}};

constexpr std::size_t window = 64;

double processorSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Figures {
    double perSecond = 0;
    double processorUs = 0;  // for each message
};

// Calls `step`, which returns how many messages it handled, for so long.
template <typename Step>
Figures measure(double seconds, const Step& step) {
    for (const auto end = after(seconds / 5); Clock::now() < end;) {
        step();
    }
    const auto begin = Clock::now();
    const double processorBegin = processorSeconds();
    std::uint64_t messages = 0;
    for (const auto end = after(seconds); Clock::now() < end;) {
        messages += step();
    }
    const auto count = static_cast<double>(messages);
    return {count / secondsBetween(begin, Clock::now()),
            (processorSeconds() - processorBegin) * 1e6 / count};
}

// What arrives by callback, since it was last asked.
class Arriving {
  public:
    std::atomic<std::uint64_t>& counter() { return received_; }
    std::uint64_t after(std::chrono::milliseconds time) {
        std::this_thread::sleep_for(time);
        const std::uint64_t before = std::exchange(seen_, received_);
        return seen_ - before;
    }

  private:
    std::atomic<std::uint64_t> received_{0};
    std::uint64_t seen_ = 0;
};

// As fast as the subscriber takes them: at most so many are under way.
std::uint64_t publishWindow(kavri::Responder& publisher, const std::string& payload,
                            const std::atomic<std::uint64_t>& received) {
    const std::uint64_t until = received + window;
    for (std::size_t i = 0; i < window; ++i) {
        publisher.publish("event", payload);
    }
    while (received < until) {
        std::this_thread::yield();
    }
    return window;
}

template <typename Client>
Figures measure(const Case& which, const std::string& address, double seconds) {
    const std::string payload(which.payloadBytes, 'x');
    Arriving arriving;
    if (which.kind == Case::Kind::events) {
        kavri::Options options;
        options.brokerAddress = address;
        kavri::Responder publisher("events", options);
        Client client(address, payload);
        client.countEvents(arriving.counter());
        return measure(seconds,
                       [&] { return publishWindow(publisher, payload, arriving.counter()); });
    }
    Client client(address, payload);
    if (which.kind == Case::Kind::callback) {
        client.refillByCallback(arriving.counter());
    }
    if (which.kind == Case::Kind::inFlight || which.kind == Case::Kind::callback) {
        for (std::size_t i = 0; i < window; ++i) {
            client.send();
        }
    }
    const std::vector<kavri_core_ipc_command> batch(window / 2,
                                                    {"test", "echo", "1", payload.c_str()});
    return measure(seconds, [&]() -> std::uint64_t {
        switch (which.kind) {
            case Case::Kind::callback:
                return arriving.after(std::chrono::milliseconds(5));
            case Case::Kind::batch:
                client.sendBatch(batch);
                for (std::size_t i = 0; i < batch.size(); ++i) {
                    client.receive();
                }
                return batch.size();
            case Case::Kind::roundTrip:
                client.send();
                client.receive();
                return 1;
            default:
                client.receive();
                client.send();
                return 1;
        }
    });
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

void compare(const Case& which, const std::string& address, double seconds, int rounds) {
    std::vector<double> speedRatios;
    std::vector<double> processorRatios;
    std::vector<double> perSecond;
    std::vector<double> processorUs;
    for (int round = 0; round < rounds; ++round) {
        Figures c;
        Figures cpp;
        if (round % 2 == 0) {
            c = measure<CClient>(which, address, seconds);
            cpp = measure<CppClient>(which, address, seconds);
        } else {
            cpp = measure<CppClient>(which, address, seconds);
            c = measure<CClient>(which, address, seconds);
        }
        perSecond.push_back(c.perSecond);
        processorUs.push_back(c.processorUs);
        speedRatios.push_back(cpp.perSecond / c.perSecond);
        processorRatios.push_back(cpp.processorUs / c.processorUs);
    }
    std::printf("%-32s %10.0f/s %8.2f us   %.3f (%.3f to %.3f)   %.3f (%.3f to %.3f)\n",
                which.title, median(perSecond), median(processorUs), median(speedRatios),
                *std::ranges::min_element(speedRatios), *std::ranges::max_element(speedRatios),
                median(processorRatios), *std::ranges::min_element(processorRatios),
                *std::ranges::max_element(processorRatios));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("What kavri/kavri.hpp costs beside the C functions.", "kavri-bench-cpp");
    double seconds = 0.3;
    int rounds = 9;
    app.add_option("--seconds", seconds, "of one measurement")->check(CLI::PositiveNumber);
    app.add_option("--rounds", rounds)->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    try {
        const kavri::Library library;
        const kavri::process::TemporaryFolder folder;
        const std::string address = folder / "broker.sock";
        Child broker(
            {.command = {KAVRI_BIN_DIR "/kavri-broker", "--socket", address, "--test-service"},
             .logFile = folder / "broker.log"});
        broker.waitUntilReady([&] { return acceptsConnections(address); });
        std::printf("%-32s %12s %11s   %s   %s\n", "", "C functions", "processor",
                    "C++ to C: messages/s", "processor time for each");
        for (const Case& each : cases) {
            compare(each, address, seconds, rounds);
        }
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kavri-bench-cpp: %s\n", failure.what());
        return 1;
    }
}
