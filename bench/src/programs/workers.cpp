// kavri-bench-workers: how much more a responder does that several threads receive for.
//
// A service computes for each request, and answers with what it computed. One initiator keeps
// 64 requests under way and compares each answer. Numbers of threads are measured in turn, in
// rounds; the ratio to the first number is taken in each round, and the median counts. The
// computing is always the same, whatever time it takes: so threads that share a core have no
// more to show than the core gives.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <kavri/kavri.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "figures.h"
#include "process/temporary_folder.h"

namespace {

using namespace kavri::bench;

constexpr std::size_t window = 64;
constexpr std::uint64_t differentRequests = 16;

// A chain of multiplications, none of which can begin before the one before has ended.
std::uint64_t compute(std::uint64_t seed, std::uint64_t steps) {
    std::uint64_t value = seed + 1;
    for (std::uint64_t i = 0; i < steps; ++i) {
        value = (value ^ (value >> 29)) * 0xbf58476d1ce4e5b9;
    }
    return value;
}

double threadUs() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) * 1e-3;
}

// How many steps take so long, at the fastest of several tries.
std::uint64_t stepsFor(double us) {
    constexpr std::uint64_t tried = 1'000'000;
    double fastest = 1e12;
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        const double begin = threadUs();
        volatile std::uint64_t result = compute(seed, tried);
        (void)result;
        fastest = std::min(fastest, threadUs() - begin);
    }
    return static_cast<std::uint64_t>(us / fastest * tried);
}

kavri::Options optionsFor(const std::string& address) {
    kavri::Options options;
    options.brokerAddress = address;
    return options;
}

// The service, a process of its own, until it is killed.
int serve(const std::string& address, std::size_t threads, std::uint64_t steps) {
    const kavri::Library library;
    kavri::Responder responder("compute", optionsFor(address));
    const auto work = [&] {
        while (true) {
            const kavri::Request request = *responder.receive();
            const std::uint64_t seed = std::stoull(request.payload().str());
            responder.answer(request, std::to_string(compute(seed, steps)));
        }
    };
    std::vector<std::jthread> others(threads - 1);
    for (std::jthread& each : others) {
        each = std::jthread(work);
    }
    std::puts("ready");
    std::fflush(stdout);
    work();
    return 0;
}

class Client {
  public:
    Client(const std::string& address, std::uint64_t steps) : initiator_(optionsFor(address)) {
        for (std::uint64_t seed = 0; seed < differentRequests; ++seed) {
            seeds_.push_back(std::to_string(seed));
            answers_.push_back(std::to_string(compute(seed, steps)));
        }
        for (std::size_t i = 0; i < window; ++i) {
            send();
        }
    }

    void send() {
        const std::string& seed = seeds_[sent_++ % differentRequests];
        initiator_.send("compute", "", seed, seed);
    }
    // Answers come in the order in which the service had them.
    void receive() {
        const auto response = initiator_.receive(std::chrono::seconds(20));
        if (!response || response->payload() != answers_[std::stoull(response->uuid().str())]) {
            throw std::runtime_error("an answer is missing or wrong");
        }
    }
    double perSecond(double seconds) {
        std::uint64_t count = 0;
        const auto begin = Clock::now();
        for (const auto end = after(seconds); Clock::now() < end; ++count) {
            receive();
            send();
        }
        return static_cast<double>(count) / secondsBetween(begin, Clock::now());
    }

  private:
    kavri::Initiator initiator_;
    std::vector<std::string> seeds_;
    std::vector<std::string> answers_;
    std::uint64_t sent_ = 0;
};

double measure(const std::string& address, std::size_t threads, std::uint64_t steps,
               double seconds) {
    Child service({.command = ownCommand({"--serve", address, "--threads", std::to_string(threads),
                                          "--steps", std::to_string(steps)}),
                   .logFile = address + ".log",
                   .readsOutput = true});
    service.outputLine();
    Client client(address, steps);
    client.perSecond(seconds / 5);
    const double result = client.perSecond(seconds);
    service.signal(SIGKILL);
    return result;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

void compare(const std::vector<std::size_t>& threads, double us, double seconds, int rounds) {
    const kavri::Library library;
    const kavri::process::TemporaryFolder folder;
    const std::string address = folder / "broker.sock";
    Child broker({.command = {KAVRI_BIN_DIR "/kavri-broker", "--socket", address},
                  .logFile = folder / "broker.log"});
    broker.waitUntilReady([&] { return acceptsConnections(address); });

    const std::uint64_t steps = stepsFor(us);
    std::vector<std::vector<double>> rates(threads.size());
    std::vector<std::vector<double>> ratios(threads.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < threads.size(); ++i) {
            rates[i].push_back(measure(address, threads[i], steps, seconds));
            ratios[i].push_back(rates[i].back() / rates[0].back());
        }
    }
    std::printf("%.0f us of computing for each request, %ld cores\n", us,
                ::sysconf(_SC_NPROCESSORS_ONLN));
    for (std::size_t i = 0; i < threads.size(); ++i) {
        std::printf("%3zu threads %10.0f answers/s   %.3f (%.3f to %.3f)\n", threads[i],
                    median(rates[i]), median(ratios[i]), *std::ranges::min_element(ratios[i]),
                    *std::ranges::max_element(ratios[i]));
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("How much more a responder does that several threads receive for.",
                 "kavri-bench-workers");
    std::vector<std::size_t> threads{1, 8};
    double us = 1000;
    double seconds = 2;
    int rounds = 7;
    std::string served;
    std::uint64_t steps = 0;
    app.add_option("--threads", threads, "numbers of threads to compare")
        ->delimiter(',')
        ->check(CLI::PositiveNumber);
    app.add_option("--us", us, "of computing for each request")->check(CLI::NonNegativeNumber);
    app.add_option("--seconds", seconds, "of one measurement")->check(CLI::PositiveNumber);
    app.add_option("--rounds", rounds)->check(CLI::PositiveNumber);
    app.add_option("--serve", served, "be the service, at this broker")->group("");
    app.add_option("--steps", steps)->group("");
    CLI11_PARSE(app, argc, argv);
    try {
        if (!served.empty()) {
            return serve(served, threads.front(), steps);
        }
        compare(threads, us, seconds, rounds);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kavri-bench-workers: %s\n", failure.what());
        return 1;
    }
}
